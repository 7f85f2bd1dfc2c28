// Subvolumes and their IDs, on real btrfs volumes.
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/btrfs.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

#include "tests/support/btrfs_volume.h"
#include "tests/support/calc_world.h"
#include "zorvbtrfssnapusage/btrfs_tool.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kUnit[] = "intl_utils/btrfs_tool";
constexpr unsigned long long kUntouched = 4711;

// From now on this process's BTRFS_IOC_INO_LOOKUP is refused with EPERM, everything else allowed.
void RefuseInoLookup() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),  // low word
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xD0009412, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {sizeof filter / sizeof *filter, filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
    throw std::runtime_error("no seccomp filter");
}

int OpenDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

// Two volumes that all tests of this file use.
class Volumes : public CalcWorld {
 protected:
  static void SetUpTestSuite() {
    one_ = std::make_unique<BtrfsVolume>("/volume1");
    two_ = std::make_unique<BtrfsVolume>("/volume2");
    one_->Subvolume("share");
    one_->Snapshot("share", "share/.snapshots/first");
    one_->Snapshot("share", "share/.snapshots/second");
    two_->Subvolume("share");
    std::filesystem::create_directory("/volume1/plain");
    WriteFile("/volume1/file", "x");
    std::filesystem::create_symlink("/volume1/share", "/tmp/link");
    std::filesystem::create_symlink("/volume1/plain", "/tmp/link_to_plain");
  }
  static void TearDownTestSuite() {
    one_.reset();
    two_.reset();
    std::filesystem::remove("/tmp/link");
    std::filesystem::remove("/tmp/link_to_plain");
  }

  // Expects a lookup that fails, leaves the output alone and logs this.
  void ExpectLookupFails(const char* path, const std::string& message) {
    unsigned long long rootID = kUntouched;
    EXPECT_EQ(-1, BtrfsTool::SubvolRootIdLookup(path, rootID));
    EXPECT_EQ(kUntouched, rootID);
    EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, message)) << log_.Dump();
  }

  static std::unique_ptr<BtrfsVolume> one_;
  static std::unique_ptr<BtrfsVolume> two_;
};

std::unique_ptr<BtrfsVolume> Volumes::one_;
std::unique_ptr<BtrfsVolume> Volumes::two_;

// What makes the descriptor table full: no further file can be opened by this process.
void ForbidOpening() {
  openlog(nullptr, LOG_NDELAY, LOG_USER);  // the log keeps its socket
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_NOFILE, &none);
}

}  // namespace

class BtrfsToolSubvolTest : public Volumes {};
class BtrfsToolSubvolRootIdLookup : public Volumes {};
class BtrfsToolPathToRootId : public Volumes {};

// ---- SubvolTest ---------------------------------------------------------------------------------

TEST_F(BtrfsToolSubvolTest, RootsOfSubvolumesAre) {
  for (const char* path : {"/volume1", "/volume1/share", "/volume1/share/.snapshots/first",
                           "/volume2/share", "/tmp/link", "/volume1/share/"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(1, BtrfsTool::SubvolTest(path));
  }
}

TEST_F(BtrfsToolSubvolTest, PlainDirectoryOnBtrfsIsNot) {
  EXPECT_EQ(0, BtrfsTool::SubvolTest("/volume1/plain"));
  EXPECT_EQ(0, BtrfsTool::SubvolTest("/tmp/link_to_plain"));
}

TEST_F(BtrfsToolSubvolTest, FileOnBtrfsIsNot) {
  EXPECT_EQ(0, BtrfsTool::SubvolTest("/volume1/file"));
}

TEST_F(BtrfsToolSubvolTest, DirectoryElsewhereIsNot) {
  EXPECT_EQ(0, BtrfsTool::SubvolTest("/tmp"));
  EXPECT_EQ(0, BtrfsTool::SubvolTest("/proc"));
}

// On a new file system that counts its inodes: makes things in `/tmp/other` until one has the inode
// number of a subvolume's root, and expects that it is none.
void ExpectInodeOfARootIsNot(const std::function<void(const std::string&)>& make) {
  std::filesystem::create_directory("/tmp/other");
  ASSERT_EQ(0, mount("tmpfs", "/tmp/other", "tmpfs", 0, "inode64")) << strerror(errno);
  std::string found;
  for (int i = 0; i < 512 && found.empty(); ++i) {
    const std::string path = "/tmp/other/" + std::to_string(i);
    make(path);
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    if (st.st_ino == 256) found = path;
  }
  EXPECT_NE("", found);
  EXPECT_EQ(0, BtrfsTool::SubvolTest(found.c_str()));
  ASSERT_EQ(0, umount("/tmp/other"));
}

TEST_F(BtrfsToolSubvolTest, InodeOfARootOnAnotherFileSystemIsNot) {
  ExpectInodeOfARootIsNot([](const std::string& path) { std::filesystem::create_directory(path); });
}

TEST_F(BtrfsToolSubvolTest, FileWithTheInodeOfARootIsNot) {
  ExpectInodeOfARootIsNot([](const std::string& path) { WriteFile(path, ""); });
}

TEST_F(BtrfsToolSubvolTest, FailedStatIsItsNegativeErrno) {
  std::filesystem::create_symlink("/tmp/loop", "/tmp/loop");
  const struct {
    const char* path;
    int error;
  } kCases[] = {{"/volume1/missing", ENOENT},
                {"/volume1/file/below", ENOTDIR},
                {"/tmp/loop", ELOOP},
                {"", ENOENT}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(-c.error, BtrfsTool::SubvolTest(c.path));
  }
  std::filesystem::remove("/tmp/loop");
}

TEST_F(BtrfsToolSubvolTest, FailedStatfsIsItsNegativeErrno) {
  PlatformHook<int(const char*, struct statfs*)> fails("statfs");
  fails.AlwaysFails(0, EIO);
  EXPECT_EQ(-EIO, BtrfsTool::SubvolTest("/volume1/share"));
}

TEST_F(BtrfsToolSubvolTest, NullIsAnInvalidArgument) {
  EXPECT_EQ(-1, BtrfsTool::SubvolTest(nullptr));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_STREQ(kUnit, PLATCErrorGetFile());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (__null != path)=[0]\n"))
      << log_.Dump();
}

// ---- SubvolRootIdLookup -------------------------------------------------------------------------

TEST_F(BtrfsToolSubvolRootIdLookup, FindsTheKernelsID) {
  for (const char* path : {"/volume1/share", "/volume1/share/.snapshots/first",
                           "/volume1/share/.snapshots/second", "/volume2/share"}) {
    SCOPED_TRACE(path);
    unsigned long long rootID = 0;
    EXPECT_EQ(0, BtrfsTool::SubvolRootIdLookup(path, rootID));
    EXPECT_EQ(SubvolumeID(path), rootID);
  }
}

TEST_F(BtrfsToolSubvolRootIdLookup, TopOfTheVolumeIsFive) {
  unsigned long long rootID = 0;
  EXPECT_EQ(0, BtrfsTool::SubvolRootIdLookup("/volume1", rootID));
  EXPECT_EQ(5u, rootID);
}

TEST_F(BtrfsToolSubvolRootIdLookup, SymbolicLinkIsFollowed) {
  unsigned long long rootID = 0;
  EXPECT_EQ(0, BtrfsTool::SubvolRootIdLookup("/tmp/link", rootID));
  EXPECT_EQ(SubvolumeID("/volume1/share"), rootID);
}

TEST_F(BtrfsToolSubvolRootIdLookup, NullIsAnInvalidArgument) {
  unsigned long long rootID = kUntouched;
  EXPECT_EQ(-1, BtrfsTool::SubvolRootIdLookup(nullptr, rootID));
  EXPECT_EQ(kUntouched, rootID);
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (__null != szPath)=[0]\n"))
      << log_.Dump();
}

TEST_F(BtrfsToolSubvolRootIdLookup, MissingPathIsNamedAsGiven) {
  ExpectLookupFails(
      "/volume1/./missing",
      "Failed to get realpath of '/volume1/./missing', errno:No such file or directory");
}

TEST_F(BtrfsToolSubvolRootIdLookup, PlainDirectoryIsNotASubvolume) {
  ExpectLookupFails("/volume1/plain", "'/volume1/plain' is not a subvolume");
}

TEST_F(BtrfsToolSubvolRootIdLookup, MessagesNameTheResolvedPath) {
  ExpectLookupFails("/tmp/link_to_plain", "'/volume1/plain' is not a subvolume");
}

TEST_F(BtrfsToolSubvolRootIdLookup, FileIsNotASubvolume) {
  ExpectLookupFails("/volume1/file", "'/volume1/file' is not a subvolume");
}

TEST_F(BtrfsToolSubvolRootIdLookup, DirectoryElsewhereIsNotASubvolume) {
  ExpectLookupFails("/proc", "'/proc' is not a subvolume");
}

TEST_F(BtrfsToolSubvolRootIdLookup, FailedTestOfTheSubvolumeIsLogged) {
  PlatformHook<int(const char*, struct statfs*)> fails("statfs");
  fails.AlwaysFails(0, EIO);
  ExpectLookupFails("/tmp/link", "Failed to access subvolume '/volume1/share': Input/output error");
}

TEST_F(BtrfsToolSubvolRootIdLookup, UnopenableSubvolumeIsLogged) {
  EXPECT_EQ(
      0, InChild([&] {
        ForbidOpening();
        unsigned long long rootID = kUntouched;
        return BtrfsTool::SubvolRootIdLookup("/tmp/link", rootID) == -1 && rootID == kUntouched ? 0
                                                                                                : 1;
      }));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Cannot access '/volume1/share'")) << log_.Dump();
}

TEST_F(BtrfsToolSubvolRootIdLookup, RefusedIoctlIsLoggedAndSaidOnStandardError) {
  EXPECT_EQ(
      0, InChild([&] {
        RefuseInoLookup();
        if (freopen("/tmp/stderr", "w", stderr) == nullptr) return 2;
        unsigned long long rootID = kUntouched;
        return BtrfsTool::SubvolRootIdLookup("/tmp/link", rootID) == -1 && rootID == kUntouched ? 0
                                                                                                : 1;
      }));
  EXPECT_EQ("ERROR: Failed to lookup root id - Operation not permitted\n", ReadFile("/tmp/stderr"));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Failed to lookup rootid '/volume1/share'"))
      << log_.Dump();
  EXPECT_EQ(0, log_.Count("ERROR:")) << log_.Dump();
}

TEST_F(BtrfsToolSubvolRootIdLookup, LeavesNoDescriptorOpen) {
  openlog(nullptr, LOG_NDELAY, LOG_USER);  // the log's own socket
  const int before = OpenDescriptors();
  unsigned long long rootID = 0;
  EXPECT_EQ(0, BtrfsTool::SubvolRootIdLookup("/volume1/share", rootID));
  EXPECT_EQ(-1, BtrfsTool::SubvolRootIdLookup("/volume1/plain", rootID));
  EXPECT_EQ(before, OpenDescriptors());
}

// ---- PathToRootId -------------------------------------------------------------------------------

TEST_F(BtrfsToolPathToRootId, IDsComeInTheOrderOfThePaths) {
  SzList paths = ListOf({"/volume1/share/.snapshots/second", "/volume1/share", "/tmp/link",
                         "/volume1/share/.snapshots/first"});
  SzList ids = ListOf({});
  EXPECT_EQ(0, BtrfsTool::PathToRootId(SzListRef(paths), SzListRef(ids)));
  const std::string share = std::to_string(SubvolumeID("/volume1/share"));
  EXPECT_EQ((std::vector<std::string>{
                std::to_string(SubvolumeID("/volume1/share/.snapshots/second")), share, share,
                std::to_string(SubvolumeID("/volume1/share/.snapshots/first"))}),
            TextsOf(ids));
}

TEST_F(BtrfsToolPathToRootId, OldContentOfTheOutputGoes) {
  SzList paths = ListOf({"/volume1"});
  SzList ids = ListOf({"old", "older"});
  EXPECT_EQ(0, BtrfsTool::PathToRootId(SzListRef(paths), SzListRef(ids)));
  EXPECT_EQ(std::vector<std::string>{"5"}, TextsOf(ids));
}

TEST_F(BtrfsToolPathToRootId, EmptyListEmptiesTheOutput) {
  SzList paths = ListOf({});
  SzList ids = ListOf({"old"});
  EXPECT_EQ(0, BtrfsTool::PathToRootId(SzListRef(paths), SzListRef(ids)));
  EXPECT_TRUE(TextsOf(ids).empty());
}

TEST_F(BtrfsToolPathToRootId, TwoVolumesFailBeforeAnyLookup) {
  SzList paths = ListOf({"/volume1/share", "/volume2/share"});
  SzList ids = ListOf({"old"});
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(SzListRef(paths), SzListRef(ids)));
  EXPECT_EQ(std::vector<std::string>{"old"}, TextsOf(ids));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Same volume check fails[0x1234 tests/unit:7]"))
      << log_.Dump();
}

TEST_F(BtrfsToolPathToRootId, PathOnNoVolumeFailsAtTheSameVolumeCheck) {
  SzList paths = ListOf({"/tmp"});
  SzList ids = ListOf({"old"});
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(SzListRef(paths), SzListRef(ids)));
  EXPECT_EQ(std::vector<std::string>{"old"}, TextsOf(ids));
  EXPECT_EQ(0xBE00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Same volume check fails" + Tail())) << log_.Dump();
}

TEST_F(BtrfsToolPathToRootId, FailedLookupKeepsWhatWasPushed) {
  SzList paths = ListOf({"/volume1", "/volume1/plain", "/volume1/share"});
  SzList ids = ListOf({});
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(SzListRef(paths), SzListRef(ids)));
  EXPECT_EQ(std::vector<std::string>{"5"}, TextsOf(ids));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Failed to look up the root ID of [/volume1/plain]"))
      << log_.Dump();
}

TEST_F(BtrfsToolPathToRootId, FailedPushKeepsWhatWasPushed) {
  SzList paths = ListOf({"/volume1/share", "/volume1"});
  SzList ids = ListOf({});
  PlatformHook<decltype(PLATCSzListPush)> push("PLATCSzListPush");
  push.FailsOnCall(2, 0x2A00, ENOMEM);
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(SzListRef(paths), SzListRef(ids)));
  EXPECT_EQ(1, ids->count);
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit,
                               "Failed to push root ID [5] to the list[0x2A00 tests/hook:1]"))
      << log_.Dump();
}

TEST_F(BtrfsToolPathToRootId, NullPointersAreInvalidArguments) {
  SzList list = ListOf({"/volume1"});
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(nullptr, SzListRef(list)));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  PLATCErrSetEx(0, "", 0);
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(SzListRef(list), nullptr));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  for (const char* condition : {"__null != ppListPath", "NULL != ppListRootID"})
    EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit,
                                 std::string("Invaild Argument (") + condition + ")=[0]\n"))
        << log_.Dump();
}

TEST_F(BtrfsToolPathToRootId, NullListsFailSilently) {
  SzList list = ListOf({"/volume1"});
  PLATSZLIST* none = nullptr;
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(&none, SzListRef(list)));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  PLATCErrSetEx(0, "", 0);
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(SzListRef(list), &none));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_TRUE(log_.Lines().empty()) << log_.Dump();
}
