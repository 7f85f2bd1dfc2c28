// Follows one calculation until its results are where they belong.
#ifndef CLI_WATCH_H_
#define CLI_WATCH_H_

#include <chrono>
#include <string>

#include "cli/calculation.h"
#include "cli/process_watch.h"

namespace ZorvSnapUsage {

// Reads the records of one task again and again. Gives up when the calculation can no longer end:
// its process died, its record was removed, or another calculation of the share took its place.
class Watch {
 public:
  Watch(std::string share, std::string taskID);

  // Reads the records anew. True: the state is final.
  bool Poll();

  // The calculation's process, once it is known.
  const ProcessWatch& Process() const { return process_; }

  // What the last Poll read.
  const Calculation& Now() const { return now_; }

  // Waits a moment, less when a signal arrives or the calculation's process ends.
  void Pause() const;

  // After the final state, which is visible before the results are copied: waits for the end of the
  // calculation's process. False: not within the time.
  bool WaitForProcess(std::chrono::seconds limit) const;

 private:
  bool DoneBefore();
  void CheckCanStillEnd();

  const std::string share_;
  const std::string taskID_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  ProcessWatch process_;
  Calculation now_;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_WATCH_H_
