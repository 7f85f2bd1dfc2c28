// What is recorded of a share's latest calculation.
#ifndef CLI_CALCULATION_H_
#define CLI_CALCULATION_H_

#include <sys/types.h>
#include <time.h>
#include <zorvbtrfssnapusage/types.h>

#include <optional>
#include <string>
#include <vector>

namespace ZorvSnapUsage {

// The number of no process.
inline constexpr pid_t kNoProcess = -1;

// One reading of the records. The state is the share's; the rest comes from the task's own record
// while there is one, because the share's keeps values of an earlier task until the first progress.
struct Calculation {
  std::string taskID;
  std::string stateWord;  // as recorded
  bool stateKnown = true;
  ZorvBtrfsUsage::CAL_TASK_STATUS state = ZorvBtrfsUsage::CAL_TASK_STATUS_READY;
  // Only while the task has a record of its own; kNoProcess when that names what is none.
  std::optional<pid_t> pid;
  std::optional<time_t> started;
  std::optional<time_t> ended;
  std::optional<unsigned long long> processedBytes;
  std::optional<unsigned long long> exclusiveBytes;
  std::optional<int> errorCode;
  std::string errorMessage;
  std::string command;

  bool Finished() const { return state >= ZorvBtrfsUsage::CAL_TASK_STATUS_FAIL; }
};

// What a calculation is doing, its process considered.
enum class Activity {
  kNone,       // finished, or claimed so long ago that the claim no longer counts
  kClaimed,    // about to be launched
  kRunning,    // its process is at work
  kFinishing,  // done, its process is handing the results over
  kDied,       // recorded as running, but its process is gone
};

// The share's task, as its record names it: any text. Nothing when no calculation is recorded.
std::optional<std::string> RecordedTask(const std::string& share);

// The share's task; nothing when no calculation is recorded. Gives up when the record names what is
// none, or when the files of the task are not what they should be: whatever is done to a task is
// done to files of that name, and some of it to all that begin so.
std::optional<std::string> TaskOf(const std::string& share);

// As RecordedTask, but gives up when there is none: with "no such share" when that is the reason.
std::string RequireRecordedTask(const std::string& share);

// As TaskOf, but gives up when there is none, likewise.
std::string RequireTask(const std::string& share);

// Reads the records of a share's task; nothing when the share has none with a state. Gives up when
// that is none that this version knows.
std::optional<Calculation> ReadCalculation(const std::string& share, const std::string& taskID);

// As ReadCalculation, but a state that is not known counts as running.
std::optional<Calculation> ReadAnyCalculation(const std::string& share, const std::string& taskID);

// As ReadCalculation, but gives up in place of nothing.
Calculation RequireCalculation(const std::string& share, const std::string& taskID);

// When the share was claimed, if that is so far ahead of the clock that the clock must have been
// set back since. The library holds the share for such a claim until its time has come.
std::optional<time_t> ClaimAheadOfClock(const std::string& share);

// A process that ended well after its records were read did not die: where it is gone, they are
// read anew, and `calculation` is then what they say.
Activity ActivityOf(const std::string& share, Calculation& calculation);

// The word for it: "none", "claimed", "running", "finishing", "died".
const char* WordOf(Activity activity);

// Whether the calculation is claimed, at work, or handing its results over.
bool IsUnderWay(const std::string& share, Calculation calculation);

// The shares of which a calculation is recorded, in the order of their names. Gives up when the
// record cannot be read.
std::vector<std::string> RecordedShares();

// Those of them whose calculation is under way.
std::vector<std::string> SharesUnderWay();

// What a recorded error code means, in words.
const char* ReasonOf(int errorCode);

}  // namespace ZorvSnapUsage

#endif  // CLI_CALCULATION_H_
