// What is seen of a calculation while it is followed, on standard error.
#ifndef CLI_PROGRESS_H_
#define CLI_PROGRESS_H_

#include <chrono>
#include <string>

#include "cli/calculation.h"

namespace ZorvSnapUsage {

// On a terminal one line that is redrawn in place; elsewhere a plain line every few seconds.
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
  std::string Line(const Calculation& calculation) const;

  const std::string share_;
  const bool quiet_;
  const bool redraw_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point nextLine_ = begin_;
  bool drawn_ = false;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_PROGRESS_H_
