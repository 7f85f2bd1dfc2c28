// Shares of Samba, as the real testparm tells them, on a real volume.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "tests/platform/sources_world.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

constexpr char kTestparm[] = "/usr/bin/testparm";
constexpr char kRealTestparm[] = "/usr/bin/testparm.real";

// Local times are those of this zone while it stands.
class Zone {
 public:
  explicit Zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~Zone() {
    unsetenv("TZ");
    tzset();
  }
};

class Samba : public Sources {
 protected:
  ~Samba() override {
    if (fs::exists(kRealTestparm)) fs::rename(kRealTestparm, kTestparm);
  }

  // Samba's configuration: these lines below [global].
  static void Configure(const std::string& lines) {
    WriteFile(kSmbConf, "[global]\nserver role = standalone server\n" + lines);
  }

  // Puts a script in the place of testparm.
  static void FakeTestparm(const std::string& body) {
    if (!fs::exists(kRealTestparm)) fs::rename(kTestparm, kRealTestparm);
    WriteFile(kTestparm, "#!/bin/sh\n" + body + "\n");
    ASSERT_EQ(0, chmod(kTestparm, 0755));
  }

  // How often testparm has been started since; counted from the first call on.
  static size_t Starts() {
    if (!fs::exists(kRealTestparm)) {
      fs::remove("/tmp/starts");
      FakeTestparm("echo >>/tmp/starts; exec " + std::string(kRealTestparm) + " \"$@\"");
    }
    return fs::exists("/tmp/starts") ? fs::file_size("/tmp/starts") : 0;
  }

  // Lists shares until what testparm said is kept, because the files are old enough.
  static bool IsKept() {
    return WaitUntil([] {
      (void)Shares();
      return fs::exists("/run/zorvplatform/testparm");
    });
  }

  // Takes a snapshot of photos in a directory of its snapshots; gives what the view calls it.
  std::string Take(const std::string& path, const std::string& time) const {
    return time + "-" + std::to_string(SubvolumeID(volume.Snapshot("photos", path)));
  }
};

TEST_F(Samba, NamesOfTheUsualFormatAreTakenAsTheyAre) {
  volume.Subvolume("photos");
  volume.Snapshot("photos", "photos/.snapshots/@GMT-2024.03.05-09.04.09");
  volume.Snapshot("photos", "photos/.snapshots/by hand");
  Configure("[photos]\npath = /volume1/photos\nvfs objects = acl_xattr shadow_copy2\n");
  EXPECT_EQ(Names{"photos"}, Shares());
  EXPECT_EQ((Names{"@GMT-2024.03.05-09.04.09", "by hand"}), List("photos"));
  const SharePtr share = Find("photos");
  const ZORVSHAREINFO info = InfoOf(share);
  EXPECT_EQ(ZORV_SHARE_SOURCE_SAMBA, info.source);
  EXPECT_STREQ("/etc/samba/smb.conf", info.place);
  EXPECT_STREQ("/volume1/photos", info.path);
  EXPECT_STREQ("/volume1", info.volumePath);
  EXPECT_STREQ("/volume1/photos/.snapshots", info.snapDir);
  char dir[4096];
  ASSERT_EQ(1, ZORVShareSnapGetOrCreateSnapDir(share.get(), dir, sizeof dir, 0));
  EXPECT_STREQ("/volume1/photos/.snapshots", dir);
  EXPECT_EQ(0u, View("photos").size());
  EXPECT_STREQ("by hand", SnapInfo("photos", "by hand")->sourceName);
}

TEST_F(Samba, AFormatInUtc) {
  const Zone zone("America/St_Johns");
  volume.Subvolume("photos");
  const std::string name =
      Take("photos/.snapshots/snap-20240305-090409", "GMT-2024.03.05-09.04.09");
  const std::string later =
      Take("photos/.snapshots/snap-20240705-090409", "GMT-2024.07.05-09.04.09");
  volume.Snapshot("photos", "photos/.snapshots/by hand");
  volume.Snapshot("photos", "photos/.snapshots/snap-20240230-090409");   // no such day
  volume.Snapshot("photos", "photos/.snapshots/snap-20240305-090409x");  // more than a time
  fs::create_directory("/volume1/photos/.snapshots/snap-20240306-090409");
  fs::create_symlink("by hand", "/volume1/photos/.snapshots/snap-20240307-090409");
  Configure(
      "[photos]\npath = /volume1/photos/\nvfs objects = shadow_copy2\n"
      "shadow:format = snap-%Y%m%d-%H%M%S\nshadow : LocalTime = no\n");
  EXPECT_EQ((Names{name, later}), List("photos"));
  EXPECT_EQ(Names{later}, List("photos", ">=GMT-2024.07.05-09.04.09"));
  const std::map<std::string, std::string> links = {
      {name, "/volume1/photos/.snapshots/snap-20240305-090409"},
      {later, "/volume1/photos/.snapshots/snap-20240705-090409"}};
  EXPECT_EQ(links, View("photos"));
  EXPECT_STREQ("snap-20240305-090409", SnapInfo("photos", name)->sourceName);
  EXPECT_EQ(0u, SnapInfo("photos", name)->number);
  const SharePtr share = Find("photos");
  ZORVSHARESNAPINFO* info = nullptr;
  for (const char* other : {"by hand", "../photos", ""})
    EXPECT_GT(0, ZORVShareSnapInfoGet(share.get(), other, &info)) << other;
}

TEST_F(Samba, AFormatInLocalTime) {
  const Zone zone("America/St_Johns");  // 3:30 behind in winter, 2:30 in summer
  volume.Subvolume("photos");
  const std::string winter = Take("photos/.snapshots/2024-03-05_0904", "GMT-2024.03.05-12.34.00");
  const std::string summer = Take("photos/.snapshots/2024-07-05_0904", "GMT-2024.07.05-11.34.00");
  Configure(
      "shadow:localtime = yes\n[photos]\npath = /volume1/photos\n"
      "vfs objects = shadow_copy2\nshadow:format = %Y-%m-%d_%H%M\n");
  EXPECT_EQ((Names{winter, summer}), List("photos"));
}

TEST_F(Samba, TheUsualFormatInLocalTimeHasAView) {
  const Zone zone("Asia/Taipei");
  volume.Subvolume("photos");
  const std::string name =
      Take("photos/.snapshots/@GMT-2024.03.05-09.04.09", "GMT-2024.03.05-01.04.09");
  Configure(
      "[photos]\npath = /volume1/photos\nvfs objects = shadow_copy2\n"
      "shadow:localtime = yes\n");
  EXPECT_EQ(Names{name}, List("photos"));
}

TEST_F(Samba, SecondsSinceTheEpochHaveNoZone) {
  const Zone zone("Asia/Taipei");
  volume.Subvolume("photos");
  const std::string name = Take("photos/.snapshots/s1709629449", "GMT-2024.03.05-09.04.09");
  for (const char* local : {"yes", "no"}) {
    Configure(
        "[photos]\npath = /volume1/photos\nvfs objects = shadow_copy2\n"
        "shadow:format = s%s\nshadow:localtime = " +
        std::string(local) + "\n");
    EXPECT_EQ(Names{name}, List("photos")) << local;
  }
}

TEST_F(Samba, SnapshotsElsewhere) {
  volume.Subvolume("photos");
  fs::create_directory("/volume1/snaps");
  volume.Snapshot("photos", "snaps/GMT-2024.03.05-09.04.09");
  const std::string share = "[photos]\npath = /volume1/photos\nshadow:snapdir = ";
  Configure("vfs objects = shadow_copy2\n" + share + "/volume1/snaps\n");
  EXPECT_EQ(Names{"GMT-2024.03.05-09.04.09"}, List("photos"));
  Configure("vfs objects = shadow_copy2\n" + share + "../snaps\n");
  EXPECT_EQ(Names{"GMT-2024.03.05-09.04.09"}, List("photos"));
  EXPECT_STREQ("/volume1/snaps", InfoOf(Find("photos")).snapDir);
  Configure("vfs objects = shadow_copy2\n" + share + "/volume1/none\n");
  EXPECT_EQ(Names{}, List("photos"));
  fs::create_directory("/tmp/elsewhere");
  Configure("vfs objects = shadow_copy2\n" + share + "/tmp/elsewhere\n");
  EXPECT_EQ(Names{"failed"}, List("photos"));
  EXPECT_TRUE(FailedWith(0x2B00));
  EXPECT_EQ(
      "/tmp/elsewhere, the snapshots of share photos, is on another file system than "
      "/volume1/photos; mount what belongs there",
      Problem());
}

TEST_F(Samba, SharesThatArePassedBy) {
  volume.Subvolume("photos");
  Configure(
      "vfs objects = shadow_copy2\n"
      "[homes]\nbrowseable = no\n"
      "[printers]\nprintable = yes\npath = /tmp\n"
      "[user]\npath = /volume1/%U\n"
      "[off]\npath = /volume1/photos\navailable = no\n"
      "[scan]\npath = /volume1/photos\nshadow:sscanf = yes\nshadow:format = s%ld\n"
      "[prefix]\npath = /volume1/photos\nshadow:snapprefix = ^s$\n"
      "[below]\npath = /volume1/photos\nshadow:snapsharepath = x\n"
      "[base]\npath = /volume1/photos\nshadow:basedir = /volume1\n"
      "[mount]\npath = /volume1/photos\nshadow:mountpoint = /volume1\n"
      "[same]\npath = /volume1/photos\nshadow:mountpoint = /volume1/photos/\n"
      "[plain]\npath = /tmp\n"
      "[without]\npath = /volume1/photos\nvfs objects = acl_xattr\n");
  EXPECT_EQ((Names{"photos", "same"}), Shares()) << Problem();
  const struct {
    const char* name;
    const char* why;
  } kCases[] = {{"homes", "it stands for many"},
                {"printers", "it stands for many"},
                {"user", "its path depends on who asks"},
                {"off", "it is not available"},
                {"scan", "shadow:sscanf is not understood"},
                {"prefix", "shadow:snapprefix is not understood"},
                {"below", "its snapshots are those of a directory above it (shadow:snapsharepath)"},
                {"base", "its snapshots are those of another directory (shadow:basedir)"},
                {"mount", "its snapshots are those of another directory (shadow:mountpoint)"},
                {"plain", "its path is no btrfs subvolume"}};
  for (const auto& c : kCases) {
    EXPECT_EQ(nullptr, Find(c.name));
    EXPECT_TRUE(FailedWith(0x1400));
    EXPECT_EQ("share " + std::string(c.name) + " of /etc/samba/smb.conf is passed by: " + c.why,
              Problem());
  }
  EXPECT_EQ(nullptr, Find("without"));
  EXPECT_EQ("", Problem());
}

TEST_F(Samba, APathThatIsNotMountedIsNoShorterList) {
  Configure("[far]\npath = /mnt/disk/far\nvfs objects = shadow_copy2\n");
  EXPECT_EQ(Names{"far"}, Shares());
  fs::create_directories("/mnt/disk/far");
  EXPECT_EQ(Names{}, Shares());
  WriteFile("/etc/fstab", "/dev/none /mnt/disk btrfs defaults 0 0\n");
  EXPECT_EQ(Names{"far"}, Shares());
  EXPECT_EQ(nullptr, Find("far"));
  EXPECT_TRUE(FailedWith(0x0400));
  fs::remove_all("/mnt/disk");
}

TEST_F(Samba, IsOneShareWithTheVolumesOfItsNameOrIsRefused) {
  volume.Subvolume("photos");
  volume.Subvolume("other");
  Configure("vfs objects = shadow_copy2\n[photos]\npath = /volume1/photos\n");
  EXPECT_EQ((Names{"other", "photos"}), Shares());
  EXPECT_EQ(ZORV_SHARE_SOURCE_SAMBA, InfoOf(Find("photos")).source);
  EXPECT_EQ(ZORV_SHARE_SOURCE_VOLUME, InfoOf(Find("other")).source);
  Configure("vfs objects = shadow_copy2\n[photos]\npath = /volume1/other\n");
  EXPECT_EQ((Names{"other", "photos"}), Shares());
  EXPECT_EQ(nullptr, Find("photos"));
  EXPECT_TRUE(FailedWith(0x2B00));
  EXPECT_EQ(
      "the name photos is given to /volume1/other (/etc/samba/smb.conf) and to "
      "/volume1/photos (/volume1); give one of them another name, or say in "
      "/etc/zorv-snapusage.conf which one it is",
      Problem());
  EXPECT_NE(nullptr, Find("other")) << "the others are as they were";
}

TEST_F(Samba, NothingIsStartedWithoutShadowCopies) {
  EXPECT_EQ(0u, Starts());
  EXPECT_EQ(Names{}, Shares());
  Configure(
      "# vfs objects = shadow_copy2\n; include = /etc/samba/%m\n"
      "include = /etc/samba/more\n[photos]\npath = /volume1/photos\n");
  WriteFile("/etc/samba/more", "[more]\npath = /volume1\n");
  EXPECT_EQ(Names{}, Shares());
  EXPECT_EQ(0u, Starts());
  EXPECT_FALSE(fs::exists("/run/zorvplatform"));
  WriteFile("/etc/samba/more", "[more]\npath = /volume1\nvfs objects = shadow\\\n_copy2\n");
  EXPECT_EQ(Names{"more"}, Shares());
  EXPECT_EQ(1u, Starts());
  fs::remove("/etc/samba/more");
}

TEST_F(Samba, WhatTestparmSaidIsKeptUntilAFileChanges) {
  volume.Subvolume("photos");
  WriteFile("/etc/samba/more", "[more]\npath = /volume1/photos\n");
  Configure(
      "vfs objects = shadow_copy2\ninclude = /etc/samba/more\n"
      "[photos]\npath = /volume1/photos\n");
  (void)Starts();
  ASSERT_TRUE(IsKept());
  const size_t starts = Starts();
  EXPECT_GT(starts, 1u) << "young files may change unseen";
  struct stat st;
  ASSERT_EQ(0, lstat("/run/zorvplatform/testparm", &st));
  EXPECT_EQ(0600u, st.st_mode & 07777u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ((Names{"more", "photos"}), Shares());
  EXPECT_EQ(starts, Starts());
  WriteFile("/etc/samba/more", "[less]\npath = /volume1/photos\n");
  EXPECT_EQ((Names{"less", "photos"}), Shares());
  EXPECT_EQ(starts + 1, Starts());
  fs::remove("/etc/samba/more");
  EXPECT_EQ(Names{"photos"}, Shares());
}

// Whose parts depend on the client, or are not files.
TEST_F(Samba, ConfigurationsThatCannotBeToldApartAreAskedForEachTime) {
  for (const char* line : {"include = /etc/samba/%m.conf\n", "include = registry\n"}) {
    Configure(std::string(line) + "[photos]\npath = /volume1\nvfs objects = shadow_copy2\n");
    const timespec old[2] = {{0, UTIME_OMIT}, {1000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, kSmbConf, old, 0));
    sleep(3);  // past what counts as young
    const size_t before = Starts();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Names{"photos"}, Shares()) << Problem();
    EXPECT_EQ(before + 2, Starts()) << line;
  }
}

TEST_F(Samba, ATestparmThatCannotBeReliedOnIsAnErrorNotAShorterList) {
  volume.Subvolume("music");
  Configure("[photos]\npath = /volume1/photos\nvfs objects = shadow_copy2\n");
  const struct {
    const char* name;
    const char* body;
    const char* why;
  } kCases[] = {
      {"fails", "exit 1", "ended with status 1"},
      {"dies", "kill -9 $$", "was ended by signal 9"},
      {"is silent", "true", "cannot be relied on: its output does not begin with [global]"},
      {"talks", "echo hello", "cannot be relied on: line 1 of its output cannot be understood"},
      {"is cut", "printf '[global]\\n[pho'",
       "cannot be relied on: line 2 of its output cannot be understood"},
      {"does not stop talking", "exec yes '# more'", "prints too much"},
      {"hangs", "echo '[global]'; exec sleep 1000", "does not end"},
      {"hangs silently", "exec >/dev/null; exec sleep 1000", "was ended by signal 9"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    FakeTestparm(c.body);
    EXPECT_EQ(Names{"failed"}, Shares());
    EXPECT_TRUE(FailedWith(0x2B00));
    EXPECT_EQ("the shares of /etc/samba/smb.conf cannot be told: /usr/bin/testparm " +
                  std::string(c.why) +
                  "; samba = off in /etc/zorv-snapusage.conf does without them",
              Problem());
    EXPECT_FALSE(fs::exists("/run/zorvplatform/testparm")) << "and is not kept";
  }
  fs::remove(kTestparm);
  EXPECT_EQ(Names{"failed"}, Shares());
  EXPECT_THAT(Problem(), testing::HasSubstr("cannot be started: No such file or directory"));
  WriteFile(kSharesFile, "samba = off\n");
  EXPECT_EQ(Names{"music"}, Shares());
}

TEST_F(Samba, AFileThatCannotBeReadIsAnError) {
  Configure("include = /etc/samba/pipe\n");
  ASSERT_EQ(0, mkfifo("/etc/samba/pipe", 0600));
  EXPECT_EQ(Names{"failed"}, Shares());
  EXPECT_TRUE(FailedWith(0x2A00));
  EXPECT_EQ("/etc/samba/pipe cannot be read: Invalid argument", Problem());
  fs::remove("/etc/samba/pipe");
}

}  // namespace
