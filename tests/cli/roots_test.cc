// The directories of the library: made for root alone, and refused when somebody else may have a
// hand in them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/cli/cli_world.h"
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
    ExpectRefusal(Tool({"clean"}), "'" + directory +
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

TEST_F(Roots, PlaceThatIsMissingIsSaid) {
  for (const std::string& root : kRoots) fs::remove_all(root);
  fs::remove("/run/lock");
  const CommandResult result = Tool({"show", "photos"});
  fs::create_directory("/run/lock");
  fs::permissions("/run/lock", fs::perms(01777));
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(
      "zorv-snapusage: /run/lock cannot be opened (No such file or directory); see to the "
      "directory and to the file system that holds it\n",
      result.err);
}

}  // namespace
