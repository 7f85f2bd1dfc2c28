// Shares, on real btrfs file systems.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <zorvplatform/share.h>

#include <filesystem>
#include <string>

#include "tests/platform/closed_mount.h"
#include "tests/platform/platform_error.h"
#include "tests/platform/process_state.h"
#include "tests/platform/scoped_mount.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;

// The names of all shares; {"failed"} when they cannot be told, and then with code 0x0400.
Names Shares() {
  PLATSZLIST* list = PLATCSzListAlloc(1);
  PLATCSzListPush(&list, "before");
  ClearError();
  const int count = ZORVShareEnum(&list, 0x301);
  Names names = Texts(list);
  PLATCSzListFree(list);
  EXPECT_EQ("before", names.front());
  names.erase(names.begin());
  if (count < 0) {
    EXPECT_TRUE(FailedWith(0x0400));
    EXPECT_EQ(Names{}, names);
    return {"failed"};
  }
  EXPECT_EQ(count, static_cast<int>(names.size()));
  return names;
}

// The snapshot directory of a share, which tells where the share lies; "" when it is not found, and
// then with this code.
std::string Find(const std::string& name, unsigned int code = 0x1400) {
  ZORVSHARE* share = nullptr;
  ClearError();
  if (ZORVShareGet(name.c_str(), &share) != 0) {
    EXPECT_EQ(nullptr, share);
    EXPECT_TRUE(FailedWith(code));
    return "";
  }
  EXPECT_EQ(name, share->name);
  char dir[4096];
  EXPECT_EQ(1, ZORVShareSnapGetOrCreateSnapDir(share, dir, sizeof dir, 0));
  ZORVShareFree(share);
  return dir;
}

// A world without volumes before and after each test.
class Shared : public testing::Test {
 protected:
  Shared() { WriteFile("/etc/fstab", ""); }
  ~Shared() override {
    for (const char* link : {"/volume3", "/volume4"}) {
      if (fs::is_symlink(link)) fs::remove(link);
    }
    WriteFile("/etc/fstab", "");
  }
};

struct ZORVShareEnum : Shared {};

TEST_F(ZORVShareEnum, SharesOfTwoVolumes) {
  const BtrfsVolume one("/volume1");
  const BtrfsVolume two("/volume2");
  EXPECT_EQ(Names{}, Shares());
  two.Subvolume("music");
  one.Subvolume("photos");
  one.Subvolume("archive");
  EXPECT_EQ((Names{"archive", "music", "photos"}), Shares());
  EXPECT_EQ("/volume1/photos/.snapshots", Find("photos"));
  EXPECT_EQ("/volume2/music/.snapshots", Find("music"));
}

struct ZORVShareSurvey : Shared {
  // The shares, then what is missing, then what is hidden.
  static std::vector<Names> Surveyed() {
    std::vector<Names> told;
    PLATSZLIST* lists[] = {PLATCSzListAlloc(4), PLATCSzListAlloc(4), PLATCSzListAlloc(4)};
    EXPECT_LE(0, ::ZORVShareSurvey(&lists[0], &lists[1], &lists[2]));
    for (PLATSZLIST* list : lists) {
      told.push_back(Texts(list));
      PLATCSzListFree(list);
    }
    return told;
  }
};

// One disk that was absent kept all other shares from being listed.
TEST_F(ZORVShareSurvey, AVolumeThatIsNotThereHidesNoOther) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  EXPECT_EQ((std::vector<Names>{{"photos"}, {}, {}}), Surveyed());
  WriteFile("/etc/fstab", "UUID=aaaa /volume3 btrfs nofail 0 0\n");
  fs::create_directory("/volume3");
  fs::create_symlink("/nowhere", "/volume4");
  EXPECT_EQ(
      (std::vector<Names>{{"photos"},
                          {"/volume3 is not there: /etc/fstab names its mount, which is not made",
                           "/volume4 is not there: No such file or directory"},
                          {}}),
      Surveyed());
  EXPECT_EQ(Names{"failed"}, Shares()) << "who deletes what is missing gets no shorter list";
  EXPECT_STREQ("/volume3 is not there: /etc/fstab names its mount, which is not made",
               PLATCErrorGetText());
  fs::remove("/volume3");
  EXPECT_EQ("", Find("mail", 0x0400));
  EXPECT_STREQ("/volume4 is not there: No such file or directory", PLATCErrorGetText());
}

TEST_F(ZORVShareSurvey, ASecondShareOfAName) {
  const BtrfsVolume one("/volume1");
  const BtrfsVolume two("/volume2");
  one.Subvolume("mail");
  two.Subvolume("mail");
  EXPECT_EQ(
      (std::vector<Names>{
          {"mail"},
          {},
          {"/volume2/mail is hidden by /volume1/mail, which has the same name; give it another "
           "one in /etc/zorv-snapusage.conf: a share with path = /volume2/mail"}}),
      Surveyed());
  WriteFile("/etc/zorv-snapusage.conf", "[post]\npath = /volume2/mail\n");
  EXPECT_EQ((std::vector<Names>{{"mail", "post"}, {}, {}}), Surveyed());
  for (const char* path : {"/volume1/mail", "/volume2/mail"}) {
    WriteFile("/etc/zorv-snapusage.conf", std::string("[mail]\npath = ") + path + "\n");
    EXPECT_EQ((std::vector<Names>{{"mail"}, {}, {}}), Surveyed()) << path;
  }
  fs::remove("/etc/zorv-snapusage.conf");
}

TEST_F(ZORVShareSurvey, OneShareByTwoVolumesHidesNone) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("mail");
  fs::create_symlink("/volume1", "/volume4");
  EXPECT_EQ((std::vector<Names>{{"mail"}, {}, {}}), Surveyed());
}

TEST_F(ZORVShareEnum, ASubvolumeOfTheSystemIsPassedByInWords) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("@home");
  EXPECT_EQ("", Find("@home"));
  EXPECT_STREQ(
      "/volume1/@home is passed by, because systems begin the names of their own subvolumes with "
      "@; make it a share in /etc/zorv-snapusage.conf, as [home] with path = /volume1/@home",
      PLATCErrorGetText());
  EXPECT_EQ("", Find("@none"));
  EXPECT_STREQ("", PLATCErrorGetText());
}

TEST_F(ZORVShareEnum, WithoutVolumesThereAreNone) { EXPECT_EQ(Names{}, Shares()); }

TEST_F(ZORVShareEnum, WhatIsNoShare) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("share");
  for (const char* name : {".hidden", "@system", "#recycle"}) one.Subvolume(name);
  fs::create_directory("/volume1/directory");
  WriteFile("/volume1/file", "x");
  one.Subvolume("directory/nested");
  one.Subvolume("share/nested");
  one.Snapshot("share", "share/.snapshots/one");
  fs::create_symlink("share", "/volume1/link");
  fs::create_symlink("share/.snapshots/one", "/volume1/linkToSnapshot");
  EXPECT_EQ(Names{"share"}, Shares());
  for (const char* name :
       {".hidden", "@system", "#recycle", "directory", "file", "nested", "directory/nested", "link",
        "linkToSnapshot", "missing", "", ".", "..", "/", "/volume1/share", "share/", "./share"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ("", Find(name));
  }
  EXPECT_EQ("", Find(std::string(300, 'n')));
  EXPECT_EQ("", Find(std::string(5000, 'n')));
}

TEST_F(ZORVShareEnum, NamesOfEveryKind) {
  const BtrfsVolume one("/volume1");
  Names names = {" leading blank", "a.b",          "line\nbreak", "with blank",
                 "x@y#z",          "\xe5\x86\x99", "\xff\xfe"};
  names.push_back(std::string(255, 'n'));
  for (const std::string& name : names) one.Subvolume(name);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, Shares());
  for (const std::string& name : names) {
    EXPECT_EQ("/volume1/" + name + "/.snapshots", Find(name));
  }
}

TEST_F(ZORVShareEnum, OneNameOnTwoVolumesIsTheShareOfTheLowest) {
  const BtrfsVolume ten("/volume10");
  const BtrfsVolume nine("/volume9");
  ten.Subvolume("photos");
  EXPECT_EQ("/volume10/photos/.snapshots", Find("photos"));
  nine.Subvolume("photos");
  EXPECT_EQ(Names{"photos"}, Shares());
  EXPECT_EQ("/volume9/photos/.snapshots", Find("photos"));
}

TEST_F(ZORVShareEnum, TwoVolumesOnOneFileSystem) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  one.Subvolume("below/music");
  const ScopedMount bind("/volume1/below", "/volume2", "", MS_BIND);
  EXPECT_EQ((Names{"music", "photos"}), Shares());
  EXPECT_EQ("/volume2/music/.snapshots", Find("music"));
}

// The owner of one share could keep all others from being told.
TEST_F(ZORVShareEnum, AMountThatKeepsOthersOutIsNoShare) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  one.Subvolume("covered");
  const ClosedMount directory("/volume1/directory"), share("/volume1/covered");
  EXPECT_EQ(Names{"photos"}, Shares());
  EXPECT_EQ("/volume1/photos/.snapshots", Find("photos"));
  EXPECT_EQ("", Find("directory"));
  EXPECT_EQ("", Find("covered"));
}

TEST_F(ZORVShareEnum, VolumesAreReadAnewEachTime) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("first");
  EXPECT_EQ(Names{"first"}, Shares());
  one.Subvolume("second");
  one.DeleteSubvolume("first");
  EXPECT_EQ(Names{"second"}, Shares());
  const BtrfsVolume two("/volume2");
  two.Subvolume("third");
  EXPECT_EQ((Names{"second", "third"}), Shares());
}

TEST_F(ZORVShareEnum, AVolumeReachedBySymbolicLink) {
  const BtrfsVolume data("/mnt/data");
  data.Subvolume("photos");
  fs::create_symlink("/mnt/data", "/volume3");
  EXPECT_EQ(Names{"photos"}, Shares());
  EXPECT_EQ("/volume3/photos/.snapshots", Find("photos"));
}

TEST_F(ZORVShareEnum, AVolumeThatIsNotBtrfsHasNone) {
  const BtrfsVolume one("/volume1");
  const ScopedMount other("tmpfs", "/volume2", "tmpfs");
  one.Subvolume("photos");
  fs::create_directories("/volume2/directory");
  EXPECT_EQ(Names{"photos"}, Shares());
  EXPECT_EQ("", Find("directory"));
}

TEST_F(ZORVShareEnum, AnotherFileSystemMountedBelowAVolumeIsNoShare) {
  const BtrfsVolume one("/volume1");
  const BtrfsVolume inner("/volume1/inner");
  const ScopedMount other("tmpfs", "/volume1/other", "tmpfs");
  one.Subvolume("photos");
  EXPECT_EQ(Names{"photos"}, Shares());
  EXPECT_EQ("", Find("inner"));
}

TEST_F(ZORVShareEnum, AVolumeOfFstabThatIsNotMountedIsAnErrorNotAShorterList) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  const struct {
    const char* name;
    const char* line;
  } kCases[] = {
      {"plain", "UUID=aaaa /volume3 btrfs defaults 0 0"},
      {"trailing slash", "UUID=aaaa /volume3/ btrfs defaults 0 0"},
      {"noauto", "UUID=aaaa /volume3 btrfs noauto,nofail 0 0"},
      {"not btrfs", "UUID=aaaa /volume3 ext4 defaults 0 2"},
      {"tabs and blanks", "  UUID=aaaa\t\t/volume3  btrfs\tdefaults"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile("/etc/fstab",
              std::string("# comment\nproc /proc proc defaults 0 0\n") + c.line + "\n");
    EXPECT_EQ(Names{"failed"}, Shares());
    fs::create_directory("/volume3");  // the empty mount point is there, as on every real machine
    EXPECT_EQ(Names{"failed"}, Shares());
    EXPECT_EQ("/volume1/photos/.snapshots", Find("photos"));
    EXPECT_EQ("", Find("music", 0x0400));  // it may lie on the volume that is missing
    {
      const ScopedMount there("tmpfs", "/volume3", "tmpfs");
      EXPECT_EQ(Names{"photos"}, Shares());
      EXPECT_EQ("", Find("music"));
    }
  }
}

TEST_F(ZORVShareEnum, FstabLinesThatNameNoVolume) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  WriteFile("/etc/fstab",
            "# UUID=aaaa /volume3 btrfs defaults 0 0\n\nUUID=bbbb none swap sw 0 0\n"
            "UUID=cccc / ext4 defaults 0 1\nUUID=dddd /mnt/unrelated btrfs defaults 0 0\n"
            "UUID=eeee /volume07 btrfs defaults 0 0\nUUID=ffff /volume1/below btrfs defaults 0 0\n"
            "UUID=gggg /srv/volume3 btrfs defaults 0 0\ngarbage\n"
            "/dev/loop0 /volume1 btrfs defaults 0 0\n");
  EXPECT_EQ(Names{"photos"}, Shares());
}

// A line with a NUL in it took the next one with it, and the volume there was not missed.
TEST_F(ZORVShareEnum, AFstabWithNulsHidesNoVolume) {
  using std::string_literals::operator""s;
  const std::string volume = "UUID=aaaa /volume3 btrfs defaults 0 0\n";
  for (const std::string& before : {"#\0\n"s, "\0\n"s, "a\0b /mnt/x btrfs\n"s, "\0"s}) {
    WriteFile("/etc/fstab", before + volume);
    EXPECT_EQ(Names{"failed"}, Shares());
  }
}

TEST_F(ZORVShareEnum, AFstabWithLongLinesHidesNoVolume) {
  WriteFile("/etc/fstab", "UUID=" + std::string(100'000, 'a') + " /volume3 btrfs defaults 0 0\n");
  EXPECT_EQ(Names{"failed"}, Shares());
  WriteFile("/etc/fstab", std::string(2 << 20, '#') + "\n");
  EXPECT_EQ(Names{"failed"}, Shares());
}

TEST_F(ZORVShareEnum, ALinkedVolumeWhoseMountIsMissingIsAnError) {
  // The link leads into the empty directory below the missing mount.
  fs::create_directories("/mnt/with blank/pool");
  fs::create_symlink("/mnt/with blank/pool", "/volume3");
  EXPECT_EQ(Names{}, Shares());
  WriteFile("/etc/fstab", "UUID=aaaa /mnt/with\\040blank btrfs defaults 0 0\n");
  EXPECT_EQ(Names{"failed"}, Shares());
  WriteFile("/etc/fstab", "UUID=aaaa /mnt/with\\040blank/pool btrfs defaults 0 0\n");
  EXPECT_EQ(Names{"failed"}, Shares());
  EXPECT_EQ("", Find("photos", 0x0400));
  const BtrfsVolume pool("/mnt/with blank/pool");
  pool.Subvolume("photos");
  EXPECT_EQ(Names{"photos"}, Shares());
  EXPECT_EQ("/volume3/photos/.snapshots", Find("photos"));
}

TEST_F(ZORVShareEnum, ALinkThatLeadsNowhereIsAnError) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  fs::create_symlink("/mnt/missing", "/volume3");
  EXPECT_EQ(Names{"failed"}, Shares());
  EXPECT_EQ("", Find("music", 0x0400));
  EXPECT_EQ("/volume1/photos/.snapshots", Find("photos"));
  fs::remove("/volume3");
  fs::create_symlink("/etc/passwd", "/volume3");
  EXPECT_EQ(Names{"failed"}, Shares());
}

TEST_F(ZORVShareEnum, AMissingFstabNamesNothing) {
  fs::remove("/etc/fstab");
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  EXPECT_EQ(Names{"photos"}, Shares());
}

TEST_F(ZORVShareEnum, AnUnreadableFstabIsAnError) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  fs::remove("/etc/fstab");
  fs::create_directory("/etc/fstab");
  EXPECT_EQ(Names{"failed"}, Shares());
  EXPECT_EQ("", Find("photos", 0x2A00));
  fs::remove("/etc/fstab");
}

TEST_F(ZORVShareEnum, AVolumeThatAnOrdinaryUserMayNotReadIsAnErrorForHim) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  fs::permissions("/volume1", fs::perms(0700));
  EXPECT_EQ(0, InChild([] {
              if (setresuid(1234, 1234, 1234) != 0) return 2;
              EXPECT_EQ(Names{"failed"}, Shares());
              EXPECT_EQ("", Find("photos", 0x0400));
              return testing::Test::HasFailure() ? 1 : 0;
            }));
}

TEST_F(ZORVShareEnum, OtherFlagsAreRefused) {
  for (const int flags : {0, 1, 0x300, 0x302, -1}) {
    PLATSZLIST* list = PLATCSzListAlloc(1);
    ClearError();
    EXPECT_GT(0, ::ZORVShareEnum(&list, flags));
    EXPECT_TRUE(FailedWith(0x0D00));
    PLATCSzListFree(list);
  }
}

TEST_F(ZORVShareEnum, LeavesNoDescriptor) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  fs::create_symlink("/mnt/missing", "/volume3");
  const std::set<int> before = OpenDescriptors();
  EXPECT_EQ(Names{"failed"}, Shares());
  fs::remove("/volume3");
  EXPECT_EQ(Names{"photos"}, Shares());
  EXPECT_EQ("", Find("music"));
  EXPECT_EQ("/volume1/photos/.snapshots", Find("photos"));
  EXPECT_EQ(before, OpenDescriptors());
}

struct ZORVShareGet : Shared {};

TEST_F(ZORVShareGet, NameBelongsToTheRecord) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  std::string name = "photos";
  ZORVSHARE* share = nullptr;
  ASSERT_EQ(0, ::ZORVShareGet(name.c_str(), &share));
  name[0] = 'X';
  EXPECT_STREQ("photos", share->name);
  EXPECT_EQ(static_cast<void*>(share), static_cast<void*>(&share->name));  // the first member
  ::ZORVShareFree(share);
}

TEST_F(ZORVShareGet, AShareThatDoesNotExistIsNotToBeRetried) {
  EXPECT_EQ("", Find("photos", 0x1400));
  const BtrfsVolume one("/volume1");
  EXPECT_EQ("", Find("photos", 0x1400));
}

TEST(ZORVShareInfoGet, TellsWhereAShareOfAVolumeIs) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos");
  ZORVSHARE* share = nullptr;
  ASSERT_EQ(0, ::ZORVShareGet("photos", &share));
  ZORVSHAREINFO info;
  ASSERT_EQ(0, ::ZORVShareInfoGet(share, &info));
  EXPECT_EQ(ZORV_SHARE_SOURCE_VOLUME, info.source);
  EXPECT_STREQ("/volume1", info.place);
  EXPECT_STREQ("/volume1", info.volumePath);
  EXPECT_STREQ("/volume1/photos", info.path);
  EXPECT_STREQ("/volume1/photos/.snapshots", info.snapDir);
  ::ZORVShareFree(share);
}

}  // namespace
