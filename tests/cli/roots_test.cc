// The directories of the library: made for root alone, and refused when somebody else may have a
// hand in them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/cli/cli_world.h"
#include "tests/platform/scoped_mount.h"
#include "tests/support/syslog_capture.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

const std::vector<std::string> kRoots = {kRun, kLock, kPersistent};
const std::vector<std::string> kDirectories = {kRun,
                                               kLock,
                                               kPersistent,
                                               "/run/zorvbtrfssnapusage/task_status",
                                               "/run/zorvbtrfssnapusage/task_result",
                                               "/run/lock/zorvbtrfssnapusage/task_status",
                                               "/run/lock/zorvbtrfssnapusage/snap_cal_result",
                                               "/run/lock/zorvbtrfssnapusage/share_task",
                                               "/run/lock/zorvbtrfssnapusage/share_task_status",
                                               "/usr/local/zorvbtrfssnapusage/share_task_status",
                                               "/usr/local/zorvbtrfssnapusage/share_task_result"};

constexpr uid_t kSomebody = 4711;

class Roots : public CliWorld {
 protected:
  // Each test begins with the directories as a run has left them.
  Roots() { MustRun(Argv({"run", "photos", "--quiet"})); }

  static void ExpectRefusal(const CommandResult& result, const std::string& line) {
    EXPECT_EQ(16, result.status);
    EXPECT_EQ("zorv-snapusage: " + line + "\n", result.err);
    EXPECT_EQ("", result.out);
  }

  // The program run with this umask.
  static CommandResult ToolWithUmask(const std::string& mask, const std::string& words) {
    return ZorvTest::Run({"sh", "-c", "umask " + mask + "; exec " ZORV_CLI_PATH " " + words});
  }

  static std::string FilesThatOthersCanWrite() {
    return MustRun({"find", kRun, kLock, kPersistent, "-perm", "/022"});
  }
};

TEST_F(Roots, MissingOnesAreMadeForRootAlone) {
  for (const char* mask : {"000", "022", "077"}) {
    SCOPED_TRACE(mask);
    for (const std::string& root : kRoots) fs::remove_all(root);
    EXPECT_EQ(10, ToolWithUmask(mask, "status photos").status);
    for (const std::string& directory : kDirectories)
      EXPECT_EQ(0700, ModeOf(directory)) << directory;
  }
}

TEST_F(Roots, NothingThatACalculationMakesCanBeWrittenByOthers) {
  for (const char* mask : {"000", "022", "077"}) {
    SCOPED_TRACE(mask);
    for (const std::string& root : kRoots) fs::remove_all(root);
    EXPECT_EQ(0, ToolWithUmask(mask, "run photos").status);
    EXPECT_EQ("", FilesThatOthersCanWrite());
    EXPECT_EQ(0644, ModeOf(std::string(kPersistent) + "/share_snap_cal_map"));
  }
}

TEST_F(Roots, OneOfSomebodyElseIsRefusedByEveryCommand) {
  for (const std::string& directory : kDirectories) {
    SCOPED_TRACE(directory);
    ASSERT_EQ(0, chown(directory.c_str(), kSomebody, 0));
    for (const char* command : {"run", "start", "status", "show", "stop", "clean"})
      ExpectRefusal(Tool({command, "photos"}),
                    "'" + directory +
                        "' belongs to user 4711, not to root; find out who put it there, and "
                        "remove it");
    ExpectRefusal(Tool({"clean", "--all"}),
                  "'" + directory +
                      "' belongs to user 4711, not to root; find out who put it "
                      "there, and remove it");
    ASSERT_EQ(0, chown(directory.c_str(), 0, 0));
  }
  EXPECT_EQ(0, Tool({"show", "photos"}).status) << "nothing was lost";
}

TEST_F(Roots, OneThatOthersCanWriteIsRefused) {
  for (const std::string& directory : kDirectories) {
    SCOPED_TRACE(directory);
    for (const auto& [mode, text] : {std::pair{01777, "1777"}, {0720, "0720"}, {0702, "0702"}}) {
      ASSERT_EQ(0, chmod(directory.c_str(), static_cast<mode_t>(mode)));
      ExpectRefusal(Tool({"show", "photos"}),
                    "'" + directory + "' can be written by others (mode " + text +
                        "); look at what is in it, then: chmod go-w " + directory);
    }
    ASSERT_EQ(0, chmod(directory.c_str(), 0700));
  }
  EXPECT_EQ(0, Tool({"show", "photos"}).status);
}

TEST_F(Roots, ALinkToADirectoryIsRefused) {
  fs::create_directory("/opt/elsewhere");
  for (const std::string& directory : kDirectories) {
    SCOPED_TRACE(directory);
    fs::rename(directory, directory + ".moved");
    fs::create_directory_symlink("/opt/elsewhere", directory);
    for (const char* command : {"run", "show", "clean"})
      ExpectRefusal(
          Tool({command, "photos"}),
          "'" + directory + "' is a symbolic link; find out who put it there, and remove it");
    fs::remove(directory);
    fs::rename(directory + ".moved", directory);
  }
  EXPECT_TRUE(fs::is_empty("/opt/elsewhere"));
}

TEST_F(Roots, WhatIsNoDirectoryIsRefused) {
  for (const std::string& directory : kDirectories) {
    SCOPED_TRACE(directory);
    fs::rename(directory, directory + ".moved");
    WriteFile(directory, "in the way");
    ExpectRefusal(Tool({"run", "photos"}),
                  "'" + directory + "' is a file; find out who put it there, and remove it");
    fs::remove(directory);
    ASSERT_EQ(0, mkfifo(directory.c_str(), 0600));
    ExpectRefusal(Tool({"run", "photos"}),
                  "'" + directory + "' is a named pipe; find out who put it there, and remove it");
    fs::remove(directory);
    fs::rename(directory + ".moved", directory);
  }
}

TEST_F(Roots, VolatileOnesAreClosedToOthers) {
  SyslogCapture log;
  for (const char* root : {kRun, kLock}) {
    SCOPED_TRACE(root);
    ASSERT_EQ(0, chmod(root, 0755));
    EXPECT_EQ(0, Tool({"show", "photos"}).status);
    EXPECT_EQ(0700, ModeOf(root));
    EXPECT_EQ(1,
              log.Count(std::string(root) + " is accessible to root alone now, its mode was 0755"));
  }
  EXPECT_EQ(0, Tool({"show", "photos"}).status);
  EXPECT_EQ(2, log.Count("accessible to root alone")) << log.Dump();
}

TEST_F(Roots, PersistentOneMayBeReadByOthers) {
  ASSERT_EQ(0, chmod(kPersistent, 0755));
  EXPECT_EQ(0, Tool({"show", "photos"}).status);
  EXPECT_EQ(0755, ModeOf(kPersistent));
}

TEST_F(Roots, PlaceWhereAnybodyCanExchangeThemIsRefused) {
  for (const char* place : {"/run", "/run/lock", "/usr", "/usr/local"}) {
    SCOPED_TRACE(place);
    const int mode = ModeOf(place);
    ASSERT_EQ(0, chmod(place, 0777));
    ExpectRefusal(Tool({"show", "photos"}),
                  std::string("'") + place +
                      "' can be changed by everybody; set its mode: chmod "
                      "o-w " +
                      place);
    ASSERT_EQ(0, chmod(place, static_cast<mode_t>(mode)));
    ASSERT_EQ(0, chown(place, kSomebody, 0));
    EXPECT_EQ(16, Tool({"show", "photos"}).status);
    ASSERT_EQ(0, chown(place, 0, 0));
  }
}

// As Debian has it where the group "staff" may install below /usr/local.
TEST_F(Roots, PlaceOfATrustedGroupWillDo) {
  fs::remove_all(kPersistent);
  ASSERT_EQ(0, chown("/usr/local", 0, 50));
  ASSERT_EQ(0, chmod("/usr/local", 02775));
  EXPECT_EQ(0, Tool({"run", "photos"}).status);
  EXPECT_EQ(02700, ModeOf(kPersistent)) << "the group is inherited, and may nothing";
  EXPECT_EQ("", FilesThatOthersCanWrite());
  ASSERT_EQ(0, chmod("/usr/local", 0755));
  ASSERT_EQ(0, chown("/usr/local", 0, 0));
}

// /run/lock as a link, as /usr/local is one on some machines. Its way is /tmp/a/locks, or longer.
class LinkedPlace : public Roots {
 protected:
  LinkedPlace() {
    fs::create_directories("/tmp/a/locks");
    fs::create_directories("/tmp/b");
    fs::remove_all(kLock);
    fs::remove("/run/lock");
  }
  ~LinkedPlace() override {
    for (const char* made : {"/tmp/a", "/tmp/b", "/run/lock"}) fs::remove_all(made);
    fs::create_directory("/run/lock");
    fs::permissions("/run/lock", fs::perms(01777));
  }

  static CommandResult ShowThrough(const char* link) {
    fs::remove("/run/lock");
    fs::create_symlink(link, "/run/lock");
    return Tool({"show", "photos"});
  }
};

TEST_F(LinkedPlace, WillDoWhereRootAloneCanExchangeIt) {
  fs::create_symlink("../a/./locks/", "/tmp/b/link");
  for (const char* link : {"/tmp/a/locks", "../tmp/a/locks", "/tmp/b/link", "//tmp/b/link/"}) {
    SCOPED_TRACE(link);
    const CommandResult result = ShowThrough(link);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(0700, ModeOf("/tmp/a/locks/zorvbtrfssnapusage"));
    fs::remove_all("/tmp/a/locks/zorvbtrfssnapusage");
  }
}

// The target was looked at, but not what it lies in.
TEST_F(LinkedPlace, IsLookedAtUpToTheRoot) {
  fs::create_symlink("../a/locks", "/tmp/b/link");
  for (const char* link : {"/tmp/a/locks", "/tmp/b/../a/locks"}) {
    SCOPED_TRACE(link);
    ASSERT_EQ(0, chown("/tmp/a", kSomebody, 0));
    ExpectRefusal(ShowThrough(link),
                  "'/tmp/a' belongs to user 4711, not to root; find out who "
                  "put it there, and remove it");
    ASSERT_EQ(0, chown("/tmp/a", 0, 0));
    ASSERT_EQ(0, chmod("/tmp/a", 0777));
    ExpectRefusal(ShowThrough(link),
                  "'/tmp/a' can be changed by everybody; set its mode: chmod o-w /tmp/a");
    ASSERT_EQ(0, chmod("/tmp/a", 0755));
  }
  ASSERT_EQ(0, chmod("/tmp/b", 0777));
  ExpectRefusal(ShowThrough("/tmp/b/link"),
                "'/tmp/b' can be changed by everybody; set its mode: chmod o-w /tmp/b");
}

// Where everybody may put something, the link may be somebody's.
TEST_F(LinkedPlace, LinkOfSomebodyElseIsRefused) {
  fs::create_symlink("/tmp/a/locks", "/tmp/b/link");
  ASSERT_EQ(0, chmod("/tmp/b", 01777));
  ASSERT_EQ(0, lchown("/tmp/b/link", kSomebody, 0));
  ExpectRefusal(ShowThrough("/tmp/b/link"),
                "'/tmp/b/link' belongs to user 4711, not to root; find "
                "out who put it there, and remove it");
}

TEST_F(LinkedPlace, ThatLeadsNowhereIsSaid) {
  fs::create_symlink("link", "/tmp/b/link");
  const struct {
    const char* link;
    const char* said;
  } kCases[] = {
      {"/tmp/b/none", "/tmp/b/none cannot be opened (No such file or directory); "},
      {"/tmp/b/link", "/tmp/b/link cannot be opened (Too many levels of symbolic links); "}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.link);
    const CommandResult result = ShowThrough(c.link);
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.err, HasSubstr(c.said));
  }
}

// It failed, and did not say what to do.
TEST_F(Roots, PlaceOfTheLocksIsMadeWhenItIsMissing) {
  fs::remove_all(kLock);
  fs::remove("/run/lock");
  SyslogCapture syslog;
  const CommandResult result = Tool({"run", "photos", "--quiet"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ(0755, ModeOf("/run/lock"));
  fs::create_directory("/run/lock");
  EXPECT_EQ(1, syslog.Count("/run/lock was missing and has been made, mode 0755"));
  fs::permissions("/run/lock", fs::perms(01777));
}

// The file system of /run/lock, small, with all that an ordinary user can put there.
class UsedUp : public Roots {
 protected:
  UsedUp() : mount_("small", "/run/lock", "tmpfs", 0, "mode=1777,nr_inodes=64") {}

  static void Exhaust() {
    MustRun({"setpriv", "--reuid", "4711", "--regid", "4711", "--clear-groups", "sh", "-c",
             "i=0; while touch /run/lock/mine$i 2>/dev/null; do i=$((i+1)); done"});
    ASSERT_NE(0, ZorvTest::Run({"touch", "/run/lock/mine"}).status) << "there is room left";
  }

 private:
  const ScopedMount mount_;
};

constexpr char kUsedUpNext[] =
    "; no file can be made in /run/lock/zorvbtrfssnapusage any more, all inodes of its file system "
    "are used: see whose files they are (find /run/lock -xdev -printf '%u\\n' | sort | uniq -c), "
    "and remove them\n";

// "the system log says why" was the next step, and the log did not.
TEST_F(UsedUp, PlaceOfTheLocksIsSaidByWhatNeedsANewLock) {
  Exhaust();
  for (const char* command : {"run", "start", "show", "clean"}) {
    SCOPED_TRACE(command);
    const CommandResult result = Tool({command, "photos"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(std::string("zorv-snapusage: /run/lock/zorvbtrfssnapusage cannot be made (No space "
                          "left on device)") +
                  kUsedUpNext,
              result.err);
  }
}

TEST_F(UsedUp, PlaceOfTheLocksOfARunIsSaid) {
  EXPECT_EQ(0, Tool({"status", "photos"}).status) << "makes the directories";
  Exhaust();
  for (const char* command : {"run", "start"}) {
    SCOPED_TRACE(command);
    const CommandResult result = Tool({command, "photos"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.err, HasSubstr(kUsedUpNext));
  }
  MustRun({"sh", "-c", "rm /run/lock/mine*"});
  EXPECT_EQ(0, Tool({"run", "photos"}).status) << "nothing holds the share";
}

// As the package's mount unit makes it.
TEST_F(UsedUp, PlaceOfTheLocksIsNothingToAFileSystemOfTheirOwn) {
  const std::string unit =
      ReadFile(ZORV_PACKAGING_DIR "/systemd/run-lock-zorvbtrfssnapusage.mount");
  const size_t options = unit.find("Options=") + sizeof "Options=" - 1;
  ASSERT_THAT(unit, HasSubstr(std::string("Where=") + kLock + "\n"));
  fs::create_directory(kLock);
  MustRun({"mount", "-t", "tmpfs", "-o", unit.substr(options, unit.find('\n', options) - options),
           "tmpfs", kLock});
  Exhaust();
  const CommandResult result = Tool({"run", "photos"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ(0700, ModeOf(kLock));
  MustRun({"umount", kLock});
}

}  // namespace
