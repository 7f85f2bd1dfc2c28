// EnsureDirs makes what is missing, in order, and says what it could not make.
#include "base/ensure_dirs.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <filesystem>

#include "base/scoped_umask.h"
#include "tests/support/command.h"
#include "tests/support/platform_hook.h"
#include "tests/support/sync_calls.h"
#include "tests/support/syslog_capture.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

constexpr LogSite kSite = {"tests/caller", 5};
constexpr char kDir[] = "/tmp/ensure";

std::string Failure(const std::string& dir, int error) {
  char tail[64];
  snprintf(tail, sizeof tail, "[0x%04X %s:%u]", PLATCErrGet(), PLATCErrorGetFile(),
           PLATCErrorGetLine());
  return "Faild to mkdir " + dir + ", err:(" + strerror(error) + ")." + tail;
}

class EnsureDirsTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::remove_all(kDir); }
  SyslogCapture log;
};

}  // namespace

TEST_F(EnsureDirsTest, MakesEachInOrderWithMode0777) {
  const ScopedUmask open(0);
  EXPECT_TRUE(EnsureDirs(kSite, {kDir, std::string(kDir) + "/below"}));
  EXPECT_EQ(0777, ModeOf(kDir));
  EXPECT_EQ(0777, ModeOf(std::string(kDir) + "/below"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(EnsureDirsTest, TheProcesssUmaskHolds) {
  const ScopedUmask mask(027);
  EXPECT_TRUE(EnsureDirs(kSite, {kDir}));
  EXPECT_EQ(0750, ModeOf(kDir));
}

TEST_F(EnsureDirsTest, LeavesExistingOnesAlone) {
  std::filesystem::create_directory(kDir);
  std::filesystem::permissions(kDir, std::filesystem::perms(0711));
  EXPECT_TRUE(EnsureDirs(kSite, {kDir}));
  EXPECT_EQ(0711, ModeOf(kDir));
}

TEST_F(EnsureDirsTest, AnotherProcessMayBeFaster) {
  std::filesystem::create_directory(kDir);
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  check.Replace([](const char*) { return 0; });  // it was not there yet when looked for
  EXPECT_TRUE(EnsureDirs(kSite, {kDir}));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(EnsureDirsTest, MakesNoParents) {
  const std::string dir = std::string(kDir) + "/missing/below";
  EXPECT_FALSE(EnsureDirs(kSite, {dir}));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, "tests/caller", Failure(dir, ENOENT))) << log.Dump();
  EXPECT_EQ(0u, log.Lines()[0].text.find("tests/caller:5 "));
}

TEST_F(EnsureDirsTest, StopsAtTheFirstFailure) {
  EXPECT_FALSE(EnsureDirs(kSite, {std::string(kDir) + "/missing/below", kDir}));
  EXPECT_FALSE(std::filesystem::exists(kDir));
  EXPECT_EQ(1u, log.Lines().size());
}

// A power cut must not take a directory away with what has been synced in it.
TEST_F(EnsureDirsTest, NewPersistentOnesAreSyncedAndNoOthers) {
  const std::string root = "/usr/local/zorvbtrfssnapusage";
  std::filesystem::remove_all(root);
  SyncCalls calls;
  EXPECT_TRUE(EnsureDirs(kSite, {kDir, root, root + "/below"}));
  EXPECT_EQ((std::vector<std::string>{"sync /usr/local", "sync " + root}), calls.Events());
  EXPECT_TRUE(EnsureDirs(kSite, {kDir, root, root + "/below"}));
  EXPECT_EQ(std::vector<std::string>{}, calls.Events());
}
