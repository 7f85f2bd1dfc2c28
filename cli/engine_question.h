// A question that the engine answers beside a calculation.
#ifndef CLI_ENGINE_QUESTION_H_
#define CLI_ENGINE_QUESTION_H_

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "cli/child_program.h"

namespace ZorvSnapUsage {

// Runs "/sbin/btrfs subvolume size OPTION -r DIRECTORY", whose standard error leads nowhere. The
// program ends when the object goes, or the caller's process.
class EngineQuestion {
 public:
  EngineQuestion(const char* option, const std::string& directory);
  ~EngineQuestion();
  EngineQuestion(const EngineQuestion&) = delete;
  EngineQuestion& operator=(const EngineQuestion&) = delete;

  // All that it has printed, once it has ended; empty when it could not be asked. Does not wait.
  std::optional<std::string> Answer();

  // Waits for the answer, at most so long; empty: there was none in time.
  std::string WaitForAnswer(std::chrono::seconds limit);

 private:
  UniqueFd out_;
  std::unique_ptr<ChildProgram> program_;  // none: it could not be asked
  std::string text_;
};

// How many bytes a calculation of snapshots below `directory` will read at least: what the engine
// answers to --estimate. Nothing: no answer, or none that can be understood.
std::optional<unsigned long long> EstimateIn(const std::string& answer);

// What the engine's --check says about why a calculation of snapshots below `directory` would fail;
// empty when it would not, or when the engine cannot say.
std::string WhyItFails(const std::string& directory);

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_QUESTION_H_
