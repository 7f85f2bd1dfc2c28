// Volumes, on real btrfs file systems.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>
#include <zorvplatform/share.h>

#include <filesystem>
#include <string>

#include "base/unique_fd.h"
#include "tests/platform/platform_error.h"
#include "tests/platform/process_state.h"
#include "tests/platform/scoped_mount.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

// The volume of a path, or "" when it has none.
std::string VolumeOf(const std::string& path) {
  char volume[4096] = "untouched";
  ClearError();
  if (VolumePathParseEx(path.c_str(), volume, sizeof volume) == 0) return volume;
  EXPECT_TRUE(FailedWith(0xBE00));
  EXPECT_STREQ("untouched", volume);
  return "";
}

// Number and kind of the volume at a path, {0, -1} when there is none.
std::pair<int, int> InfoOf(const std::string& path) {
  ZORVMOUNTVOLINFO info = {0, -1};
  ClearError();
  if (ZORVMountVolInfoGet(path.c_str(), &info) != 0) {
    EXPECT_TRUE(FailedWith(0xBE00));
    EXPECT_EQ(-1, info.volumeKind);
    return {0, -1};
  }
  return {info.volumeNum, info.volumeKind};
}

constexpr int kBtrfs = 3;
constexpr int kOther = 0;

}  // namespace

TEST(VolumePathParseEx, PathsOfTwoVolumes) {
  const BtrfsVolume one("/volume1");
  const BtrfsVolume two("/volume2");
  one.Subvolume("photos");
  one.Snapshot("photos", "photos/.snapshots/GMT-2024.03.05-09.04.09");
  two.Subvolume("with blank \xe5\x86\x99\nbreak");
  WriteFile(one.Path("photos/dir/file"), "x");
  EXPECT_EQ("/volume1", VolumeOf("/volume1"));
  EXPECT_EQ("/volume1", VolumeOf("/volume1/"));
  EXPECT_EQ("/volume1", VolumeOf("/volume1/photos"));
  EXPECT_EQ("/volume1", VolumeOf("/volume1/photos/.snapshots/GMT-2024.03.05-09.04.09"));
  EXPECT_EQ("/volume1", VolumeOf("/volume1/photos/dir/file"));
  EXPECT_EQ("/volume2", VolumeOf("/volume2"));
  EXPECT_EQ("/volume2", VolumeOf("/volume2/with blank \xe5\x86\x99\nbreak"));
  EXPECT_EQ("/volume2", VolumeOf("/volume1/photos/../../volume2"));
  EXPECT_EQ(std::make_pair(1, kBtrfs), InfoOf("/volume1"));
  EXPECT_EQ(std::make_pair(2, kBtrfs), InfoOf("/volume2"));
}

TEST(VolumePathParseEx, ASymbolicLinkToASnapshot) {
  const BtrfsVolume one("/volume1");
  const BtrfsVolume two("/volume2");
  two.Subvolume("share");
  const std::string snapshot = two.Snapshot("share", "share/.snapshots/one");
  std::filesystem::create_symlink(snapshot, "/volume1/link");
  std::filesystem::create_symlink(snapshot, "/tmp/snapshotLink");
  EXPECT_EQ("/volume2", VolumeOf("/volume1/link"));
  EXPECT_EQ("/volume2", VolumeOf("/tmp/snapshotLink"));
  std::filesystem::remove("/tmp/snapshotLink");
}

TEST(VolumePathParseEx, AVolumeReachedBySymbolicLink) {
  const BtrfsVolume data("/mnt/data");
  data.Subvolume("share");
  std::filesystem::create_symlink("/mnt/data", "/volume4");
  EXPECT_EQ("/volume4", VolumeOf("/volume4/share"));
  EXPECT_EQ("/volume4", VolumeOf("/mnt/data/share"));
  EXPECT_EQ(std::make_pair(4, kBtrfs), InfoOf("/volume4"));
  std::filesystem::remove("/volume4");
  EXPECT_EQ("", VolumeOf("/mnt/data/share"));
}

TEST(VolumePathParseEx, AVolumeReachedByBindMount) {
  const BtrfsVolume data("/mnt/data");
  data.Subvolume("below/share");
  const ScopedMount bind("/mnt/data/below", "/volume5", "", MS_BIND);
  EXPECT_EQ("/volume5", VolumeOf("/volume5/share"));
  EXPECT_EQ("/volume5", VolumeOf("/mnt/data/below/share"));
  EXPECT_EQ("/volume5", VolumeOf("/mnt/data"));
  EXPECT_EQ(std::make_pair(5, kBtrfs), InfoOf("/volume5"));
}

TEST(VolumePathParseEx, AFileSystemThatIsAlsoMountedElsewhere) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("share");
  const std::string device = one.Device();
  const ScopedMount again(device, "/mnt/again", "btrfs", 0, "subvol=share");
  EXPECT_EQ("/volume1", VolumeOf("/mnt/again"));
}

TEST(VolumePathParseEx, OfTwoVolumesOnOneFileSystemTheLowestCounts) {
  const BtrfsVolume volume("/volume10");
  volume.Subvolume("share");
  EXPECT_EQ("/volume10", VolumeOf("/volume10/share"));
  const ScopedMount bind("/volume10", "/volume9", "", MS_BIND);
  EXPECT_EQ("/volume9", VolumeOf("/volume10/share"));
  EXPECT_EQ("/volume9", VolumeOf("/volume9/share"));
  EXPECT_EQ(std::make_pair(9, kBtrfs), InfoOf("/volume10"));
}

TEST(VolumePathParseEx, AVolumeThatIsNotBtrfs) {
  const ScopedMount other("tmpfs", "/volume3", "tmpfs");
  WriteFile("/volume3/dir/file", "x");
  EXPECT_EQ("/volume3", VolumeOf("/volume3/dir/file"));
  EXPECT_EQ(std::make_pair(3, kOther), InfoOf("/volume3"));
  const ScopedMount stranger("tmpfs", "/mnt/stranger", "tmpfs");
  EXPECT_EQ("", VolumeOf("/mnt/stranger"));
}

TEST(VolumePathParseEx, FilesOfEveryType) {
  const BtrfsVolume one("/volume1");
  ASSERT_EQ(0, mkfifo("/volume1/fifo", 0600));
  ASSERT_EQ(0, mknod("/volume1/device", S_IFCHR | 0600, makedev(240, 255)));
  WriteFile("/volume1/unreadable", "");
  ASSERT_EQ(0, chmod("/volume1/unreadable", 0));
  const UniqueFd listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {AF_UNIX, "/volume1/socket"};
  ASSERT_EQ(0, bind(listening.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
  for (const char* name : {"fifo", "device", "unreadable", "socket"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ("/volume1", VolumeOf(one.Path(name)));  // a fifo is not opened: that would wait
  }
}

TEST(VolumePathParseEx, PathsOnNoVolume) {
  const BtrfsVolume one("/volume1");
  const BtrfsVolume elsewhere("/mnt/elsewhere");
  std::filesystem::create_symlink("missing", "/volume1/dangling");
  const struct {
    const char* name;
    const char* path;
  } kCases[] = {{"the root", "/"},
                {"another directory", "/usr"},
                {"btrfs that is no volume", "/mnt/elsewhere"},
                {"missing", "/volume1/missing"},
                {"dangling link", "/volume1/dangling"},
                {"no such volume", "/volume77/share"},
                {"empty", ""},
                {"longer than paths can be", nullptr}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::string path = c.path != nullptr ? c.path : "/" + std::string(5000, 'x');
    EXPECT_EQ("", VolumeOf(path));
    EXPECT_NE(0, errno);
    EXPECT_EQ(std::make_pair(0, -1), InfoOf(path));
  }
}

TEST(VolumePathParseEx, AnOrdinaryDirectoryIsNoVolume) {
  std::filesystem::create_directories("/volume6/share");
  EXPECT_EQ("", VolumeOf("/volume6/share"));
  EXPECT_EQ("", VolumeOf("/"));
  std::filesystem::remove_all("/volume6");
}

TEST(VolumePathParseEx, OtherNamesAreNoVolumes) {
  for (const char* name :
       {"/volume", "/volume0", "/volume01", "/volume1x", "/volume-1", "/volume+1", "/Volume1",
        "/volumes1", "/volume 1", "/volume1234567890", "/xvolume1"}) {
    SCOPED_TRACE(name);
    const ScopedMount other("tmpfs", name, "tmpfs");
    EXPECT_EQ("", VolumeOf(name));
  }
}

TEST(VolumePathParseEx, AVolumeThatIsMissingDoesNotHideTheOthers) {
  const BtrfsVolume two("/volume2");
  WriteFile("/etc/fstab", "/dev/none /volume1 btrfs defaults 0 0\n");
  std::filesystem::create_symlink("/no/such/target", "/volume3");
  EXPECT_EQ("/volume2", VolumeOf("/volume2"));
  std::filesystem::remove("/volume3");
  WriteFile("/etc/fstab", "");
}

TEST(VolumePathParseEx, ABufferThatIsTooSmallIsRefused) {
  const BtrfsVolume volume("/volume12");
  char buffer[16];
  for (const int size : {-1, 0, 1, 8, 9}) {  // "/volume12" and its NUL are 10 bytes
    SCOPED_TRACE(size);
    memset(buffer, '#', sizeof buffer);
    ClearError();
    EXPECT_GT(0, VolumePathParseEx("/volume12", buffer, size));
    EXPECT_TRUE(FailedWith(0x0D00));
    EXPECT_EQ(std::string(sizeof buffer, '#'), std::string(buffer, sizeof buffer));
  }
  EXPECT_EQ(0, VolumePathParseEx("/volume12", buffer, 10));
  EXPECT_STREQ("/volume12", buffer);
  EXPECT_EQ('#', buffer[10]);
}

TEST(VolumePathParseEx, LeavesNoDescriptor) {
  const BtrfsVolume one("/volume1");
  const std::set<int> before = OpenDescriptors();
  EXPECT_EQ("/volume1", VolumeOf("/volume1"));
  EXPECT_EQ("", VolumeOf("/usr"));
  EXPECT_EQ(std::make_pair(1, kBtrfs), InfoOf("/volume1"));
  EXPECT_EQ(before, OpenDescriptors());
}

TEST(ZORVMountVolInfoGet, AnyPathOnTheVolumeServes) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  EXPECT_EQ(std::make_pair(1, kBtrfs), InfoOf("/volume1/photos"));
}
