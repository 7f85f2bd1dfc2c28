// What is seen of a calculation while it is followed, on standard error.
#ifndef CLI_PROGRESS_H_
#define CLI_PROGRESS_H_

#include <chrono>
#include <optional>
#include <string>

#include "cli/calculation.h"
#include "cli/engine_question.h"
#include "cli/progress_line.h"

namespace ZorvSnapUsage {

// On a terminal one line that is redrawn in place; elsewhere a plain line every few seconds. How
// much there is to read is asked of the engine meanwhile, unless nobody is told.
class Progress {
 public:
  Progress(std::string share, bool quiet);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Shows how far the calculation is.
  void Show(const Calculation& calculation);

  // Says something that stays, also when quiet.
  void Say(const std::string& text);

  // Takes the redrawn line away.
  void Clear();

 private:
  ProgressView ViewOf(const Calculation& calculation);
  void Redraw(const ProgressView& view);

  const std::string share_;
  const bool quiet_;
  const bool redraw_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point nextLine_ = begin_;
  std::optional<EngineQuestion> question_;  // while it is not answered
  std::optional<unsigned long long> totalBytes_;
  Rate rate_;
  size_t drawnColumns_ = 0;  // of the terminal when the line was drawn; 0: there is none
};

}  // namespace ZorvSnapUsage

#endif  // CLI_PROGRESS_H_
