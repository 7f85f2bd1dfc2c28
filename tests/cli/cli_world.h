// What tests of the program share: a volume with a share and snapshots, /sbin/btrfs as a script or
// as the real engine, the program run to its end, in the background, or in a terminal.
#ifndef TESTS_CLI_CLI_WORLD_H_
#define TESTS_CLI_CLI_WORLD_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

namespace ZorvTest {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

// A program that goes on while the test does; killed when it goes and is still there.
class Background {
 public:
  struct Terminal {
    unsigned short columns;
  };

  // Standard output and error go to files, as for Run.
  explicit Background(const std::vector<std::string>& argv);

  // Both go to a terminal of this width, which is the program's controlling one.
  Background(const std::vector<std::string>& argv, Terminal terminal);

  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  pid_t Pid() const { return pid_; }

  // What it has printed so far; in a terminal all of it is Out.
  std::string Out();
  std::string Err();

  // Waits until it has printed `text` on standard error (in a terminal: anywhere).
  bool HasSaid(const std::string& text);

  // Gives its terminal another width, of which the program is told.
  void Resize(unsigned short columns);

  // Types a character into its terminal.
  void Type(char character);

  // Waits for its end.
  CommandResult Wait();

 private:
  pid_t pid_ = -1;
  UniqueFd out_, err_;  // files, or the terminal's master and nothing
  bool terminal_ = false;
  std::string screen_;
};

// Each test has a new volume at /volume1 with the share "photos" and three snapshots, two of which
// carry a time, an engine that answers at once, and no record of anything.
class CliWorld : public testing::Test {
 protected:
  static constexpr char kFirst[] = "GMT-2024.03.01-09.04.09";
  static constexpr char kSecond[] = "GMT-2024.03.02-09.04.09";
  static constexpr char kNoTime[] = "by hand";

  CliWorld();
  ~CliWorld() override;

  // The program's command line.
  static std::vector<std::string> Argv(const std::vector<std::string>& words);

  // Runs the program to its end.
  static CommandResult Tool(const std::vector<std::string>& words);

  // Makes /sbin/btrfs a script that says of itself that it is an engine; `body` does the rest, with
  // the subvolume IDs as its arguments.
  static void FakeEngine(const std::string& body);

  // What the script does when it is asked with --estimate, --check and --table; from the next one
  // on. Without one for --table, its body does that as well.
  static std::string estimate_, check_, table_;

  // The table that goes with kAnswer: each snapshot holds ten times its ID alone, and nothing with
  // others. The script has the subvolume IDs as its arguments.
  static constexpr char kTable[] =
      "shift 9; sets=; for id; do sets=\"$sets${sets:+,}{\\\"subvolumes\\\":[$id],"
      "\\\"data\\\":${id}0,\\\"metadata\\\":0,\\\"profiles\\\":{}}\"; done; IFS=,; "
      "printf '{\"format\":\"zorv-subvolume-size\",\"version\":1,\"generation\":7,"
      "\"subvolumes\":[%s],\"exclusive\":[],\"sets\":[%s],\"complete\":true}' \"$*\" \"$sets\"";

  // Prints for each ID ten times the ID.
  static constexpr char kAnswer[] =
      "echo 'processed 4096 bytes'; echo 'exclusive 2048 bytes'\n"
      "for id; do echo \"subvol($id) ${id}0 bytes\"; done\n";

  // An engine that says how far it is, waits for Release, says it again, and answers.
  static void WaitingEngine(const std::string& before = "echo 'processed 4096 bytes'");

  // Waits until the waiting engine of a calculation stands still.
  static bool EngineWaits();

  // Waits until a stop has reached the share's calculation, which takes it at its next line.
  static bool StopArrives(const std::string& share = "photos");

  // Lets the waiting engine go on.
  static void Release();

  // The engine of this project.
  static void RealEngine();

  // Subvolume ID of a snapshot of "photos".
  unsigned long long ID(const std::string& snapshot) const;

  // What `show --format json` of the share printed.
  static Json::Value Shown(const std::string& share = "photos");

  // The pid that the status of the share shows; -1 when none.
  static pid_t CalculatorPid(const std::string& share = "photos");

  // Waits until the share's calculation has ended and its results are stored.
  static bool Settled(const std::string& share = "photos");

  std::unique_ptr<BtrfsVolume> volume_;
};

// Locks a file as a process of its own would, for as long as the object stands.
class HeldLock {
 public:
  explicit HeldLock(const std::string& path);

 private:
  const UniqueFd fd_;
};

// One member of a JSON file is set to another value.
void EditJson(const std::string& path, const std::vector<std::string>& members,
              const Json::Value& value);

Json::Value ParseJson(const std::string& text);

// The three roots, and files that stand there.
inline constexpr char kRun[] = "/run/zorvbtrfssnapusage";
inline constexpr char kLock[] = "/run/lock/zorvbtrfssnapusage";
inline constexpr char kPersistent[] = "/usr/local/zorvbtrfssnapusage";
inline constexpr char kMap[] = "/usr/local/zorvbtrfssnapusage/share_snap_cal_map";
inline constexpr char kStatusOfPhotos[] = "/usr/local/zorvbtrfssnapusage/share_task_status/photos";
inline constexpr char kResultsOfPhotos[] = "/usr/local/zorvbtrfssnapusage/share_task_result/photos";

}  // namespace ZorvTest

#endif  // TESTS_CLI_CLI_WORLD_H_
