// What the tests of the share orchestration have in common.
#ifndef TESTS_SHARE_SNAP_CALCULATOR_SHARE_FIXTURE_H_
#define TESTS_SHARE_SNAP_CALCULATOR_SHARE_FIXTURE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zorvplatform/platc.h>
#include <zorvplatform/share.h>

#include <map>
#include <string>
#include <vector>

#include "base/paths.h"
#include "base/sz_list.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"
#include "tests/support/platform_hook.h"
#include "tests/support/platform_values.h"
#include "tests/support/syslog_capture.h"
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"

namespace ZorvTest {

inline constexpr char kShareUnit[] = "share_snap_calculator/share_snap_usage_cal";

// The end "[0x%04X file:line]" of a message about this error.
std::string Tail(unsigned int code, const std::string& file, unsigned int line);
// That of a failure which a hook brings about.
std::string HookTail(unsigned int code);

// Seconds since the epoch of a time text like those in status files.
std::string TimeText(time_t t);

// Makes `path` a directory: as a lock file it cannot be opened, as a file not be read or replaced.
void PutDirectory(const std::string& path);

// Keeps a directory from being written to, for one scope.
class ReadOnlyDir {
 public:
  explicit ReadOnlyDir(const std::string& path);
  ~ReadOnlyDir();
  ReadOnlyDir(const ReadOnlyDir&) = delete;
  ReadOnlyDir& operator=(const ReadOnlyDir&) = delete;

 private:
  const std::string path_;
};

// Lets rename() to one target fail with EIO from its `first` call on, so that this JSON file alone
// cannot be written.
class UnwritableFile {
 public:
  explicit UnwritableFile(const std::string& path, int first = 1);

 private:
  PlatformHook<int(const char*, const char*)> rename_{"rename"};
  int calls_ = 0;
};

// The shares that the platform reports, in place of real ones.
class KnownShares {
 public:
  explicit KnownShares(const std::vector<std::string>& names);

 private:
  PlatformHook<decltype(ZORVShareEnum)> enum_{"ZORVShareEnum"};
};

// The clock of the library.
class Clock {
 public:
  explicit Clock(time_t now);
  void Set(time_t now) { now_ = now; }

 private:
  PlatformHook<time_t(time_t*)> time_{"time"};
  time_t now_;
};

// Each test begins with none of the library's files, and its log is collected.
class ShareTest : public testing::Test {
 protected:
  ShareTest();

  // Writes the map as it is said; the directory is made.
  static void PutMap(const std::string& json);
  // The map's bytes; "" when there is none.
  static std::string MapText();
  // An entry as a task makes it.
  static std::string Entry(const std::string& taskID, time_t created,
                           const std::string& snapList = "null");
  // Writes a share's or a task's status file.
  static void PutShareStatus(const std::string& share, const std::string& json);
  static void PutTaskStatus(const std::string& taskID, const std::string& json);
  // One member of a share's status file; "" when it has none.
  static std::string ShareStatus(const std::string& share, const std::string& key);

  // How often the log has "<unit>:<line> <message>" at error priority; the unit is the tested one.
  int Errors(const std::string& message);
  // The same for an invalid argument with the text of the failed condition.
  int InvalidArguments(const std::string& condition);
  // How many lines the tested unit has logged.
  int LinesOfUnit();

  SyslogCapture syslog_;
};

// With two real volumes. /volume1 has the shares "photos" (snapshots of three times) and "docs"
// (one), /volume2 has "music" (one). A stand-in for the command, where no test says otherwise,
// gives each subvolume 4096 times its ID.
class VolumeTest : public ShareTest {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  VolumeTest();

  // The path of a snapshot, and the paths of all of photos in the order of their times.
  static std::string SnapPath(const std::string& share, const std::string& snapshot);
  static std::vector<std::string> PhotosPaths();

  static BtrfsVolume& Volume1() { return *volume1_; }
  static BtrfsVolume& Volume2() { return *volume2_; }

  // Lets the started calculator come to its end; its exit status.
  int WaitForCalculator();

  pid_t calculator_ = -1;  // the last one that was started
  PlatformHook<decltype(PLATCProcForkChildNoWait)> fork_{"PLATCProcForkChildNoWait"};

 private:
  static BtrfsVolume* volume1_;
  static BtrfsVolume* volume2_;
};

// Snapshot names of photos, by their times.
inline constexpr char kFirst[] = "GMT-2024.01.01-00.00.00";
inline constexpr char kSecond[] = "GMT-2024.02.01-00.00.00";
inline constexpr char kThird[] = "GMT-2024.03.01-00.00.00";
inline constexpr time_t kFirstTime = 1704067200;
inline constexpr time_t kSecondTime = 1706745600;
inline constexpr time_t kThirdTime = 1709251200;

// Where the stand-in for the command writes how it was called.
inline constexpr char kCalledWith[] = "/tmp/btrfs-called-with";

}  // namespace ZorvTest

#endif  // TESTS_SHARE_SNAP_CALCULATOR_SHARE_FIXTURE_H_
