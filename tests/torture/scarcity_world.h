// One share whose calculation is run while something is scarce, and what has to hold afterwards.
#ifndef TESTS_TORTURE_SCARCITY_WORLD_H_
#define TESTS_TORTURE_SCARCITY_WORLD_H_

#include <json/json.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/btrfs_volume.h"
#include "tests/support/platform_hook.h"
#include "tests/support/shared_memory.h"
#include "tests/support/syslog_capture.h"

namespace ZorvTest {

inline bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

using SubvolumeSizes = std::map<unsigned long long, unsigned long long>;

// What a failed operation may do although much else went well. All of it stands in
// docs/kept-behaviour.md, and is counted.
struct Tolerated {
  std::set<std::string> unreadable;  // files that could not be read: their other members are lost
  std::string notRemoved;            // a file whose removal failed may still be there
  bool temporaryFiles = false;       // a writer was killed, and left its temporary file
  bool unfinished = false;           // the final state could not be written
  bool unlisted = false;             // results whose directory could not be opened were not copied
  bool shortOutput = false;          // the engine's output may have been cut
};

// What came of one calculation.
struct Aftermath {
  std::vector<std::string> wrong;  // what must not be, in words
  std::string state;               // of the share
  bool cleaned = false;            // a state that was left was removed as documented
  bool lostMembers = false;        // of a file that could not be read
  bool noResult = false;           // done, and the results were not copied
  bool shortResult = false;        // done, without some of the numbers
};

// How the processes of a calculation ended, which a test has waited for.
struct Ends {
  int caller = -1;               // exit status, 128 + signal
  std::vector<int> calculators;  // wait statuses
  std::string crashed;           // who was ended by a signal, in words
};

// The share "photos" with three snapshots at /volume1; it has been calculated once. Beside it the
// share "docs", a reminder, and members of others in each file.
class ScarcityWorld {
 public:
  static constexpr char kShare[] = "photos";

  // `files` small files besides, in the share and in turn newer in each snapshot, spread what the
  // engine has to read.
  explicit ScarcityWorld(int files = 0);
  ~ScarcityWorld();
  ScarcityWorld(const ScarcityWorld&) = delete;
  ScarcityWorld& operator=(const ScarcityWorld&) = delete;

  // At /sbin/btrfs stands the engine of this project from now on, in place of a program that
  // answers at once.
  void UseRealEngine();

  // All files of the three roots are again as they were in the beginning.
  void Restore();

  // The body of a process: claims the share and launches its calculation. 0; the code of the claim;
  // or 100 more than that of the launch. The process, and the calculator that comes of it, note
  // what they leave open.
  int Calculate();

  // As the body of a process: does `body`, and notes in the same way what it has left open.
  int Noting(const std::function<int()>& body);

  // Takes what was noted.
  void JudgeLeftBehind(Aftermath* aftermath);

  // Runs Calculate in a process, after `prepare` there, and waits for all that comes of it. Throws
  // when some of it is still there after a minute.
  Ends RunPrepared(const std::function<void()>& prepare);

  // Whether the processes ended as they may: by no signal, with codes that are documented.
  static void JudgeEnds(const Ends& ends, Aftermath* aftermath);

  // Looks at everything after all processes of a calculation have ended, then has it calculated
  // once more. `caller`: the exit status of the process that has run Calculate. Restores.
  Aftermath Judge(int caller, const Tolerated& tolerated);

  // The parts of it that hold for the program as well.
  void JudgeFiles(const Tolerated& tolerated, Aftermath* aftermath);
  static void JudgeTemporaryFiles(const Tolerated& tolerated, Aftermath* aftermath);
  void JudgeNumbers(const Tolerated& tolerated, Aftermath* aftermath) const;

  // What the share's status says; empty when it has none.
  static std::string State();

  const SubvolumeSizes& Expected() const { return *expected_; }
  std::vector<std::string> IDs() const;

  SyslogCapture log;

 private:
  struct SavedFile {
    std::string content;
    int mode;
  };
  // Written by the processes of a calculation at their ends.
  struct LeftBehind {
    char text[256];
  };

  static void NoteLeftBehind();
  void UseEngine(const char* program, const SubvolumeSizes& sizes);
  void Save();
  void MakeOtherEntries();
  void JudgeMap(const Tolerated& tolerated, Aftermath* aftermath);
  void JudgeStatus(const Tolerated& tolerated, Aftermath* aftermath);
  void JudgeState(int caller, const Tolerated& tolerated, Aftermath* aftermath);
  void JudgeNext(Aftermath* aftermath);
  int CalculateToTheEnd();

  BtrfsVolume volume_;
  PlatformHook<unsigned int(unsigned int)> sleep_{"sleep"};
  SubvolumeSizes quick_, real_;
  const SubvolumeSizes* expected_ = &quick_;
  std::map<std::string, SavedFile> saved_;
  SharedMemory<LeftBehind> left_;
};

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_SCARCITY_WORLD_H_
