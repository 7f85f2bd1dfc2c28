// The directories that an installed package makes at boot, by the system's own program.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/paths.h"
#include "tests/support/command.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

class Tmpfiles : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    MustRun({ZORV_CMAKE, "--install", ZORV_BINARY_DIR, "--prefix", "/opt/zorv"});
  }
  Tmpfiles() {
    for (const char* root : kRoots) fs::remove_all(root);
  }

  static void Boot() { MustRun({"systemd-tmpfiles", "--create", "--boot", kInstalled}); }

  static void ExpectForRootAlone(const char* path) {
    struct stat status;
    ASSERT_EQ(0, lstat(path, &status)) << path;
    EXPECT_TRUE(S_ISDIR(status.st_mode)) << path;
    EXPECT_EQ(0700u, status.st_mode & 07777u) << path;
    EXPECT_EQ(0u, status.st_uid) << path;
    EXPECT_EQ(0u, status.st_gid) << path;
  }

  static constexpr const char* kRoots[] = {ZorvBtrfsUsage::kRunDir, ZorvBtrfsUsage::kLockDir,
                                           "/run/zorvplatform"};
  static constexpr char kInstalled[] = "/opt/zorv/lib/tmpfiles.d/zorvbtrfssnapusage.conf";
};

}  // namespace

TEST_F(Tmpfiles, MakeTheVolatileRootsForRootAlone) {
  Boot();
  for (const char* root : kRoots) ExpectForRootAlone(root);
}

// Somebody was faster, in a directory that everybody can write to; or a caller of the library was,
// with its umask.
TEST_F(Tmpfiles, TakeThemBack) {
  for (const char* root : kRoots) {
    fs::create_directory(root);
    ASSERT_EQ(0, chown(root, 4711, 4711));
    ASSERT_EQ(0, chmod(root, 0755));
  }
  Boot();
  for (const char* root : kRoots) ExpectForRootAlone(root);
}

// During the life of the system tasks and locks are kept.
TEST_F(Tmpfiles, NothingInThemIsRemoved) {
  Boot();
  for (const char* root : kRoots) WriteFile(std::string(root) + "/kept", "");
  Boot();
  MustRun({"systemd-tmpfiles", "--clean", kInstalled});
  for (const char* root : kRoots) EXPECT_TRUE(fs::exists(std::string(root) + "/kept")) << root;
}
