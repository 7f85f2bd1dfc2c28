// The platform's own file of shares.
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "tests/platform/sources_world.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

using SharesFile = Sources;

TEST_F(SharesFile, PathAndSnapshotsElsewhere) {
  volume.Subvolume("deep/photos");
  fs::create_directory("/volume1/.snaps");
  volume.Snapshot("deep/photos", ".snaps/GMT-2024.03.05-09.04.09");
  WriteFile(kSharesFile,
            "# our shares\n\n[photos]\n  path = /volume1/deep/photos ; here\n"
            "  snapshots = /volume1/.snaps\n");
  EXPECT_EQ(Names{"photos"}, Shares()) << Problem();
  EXPECT_EQ(Names{"GMT-2024.03.05-09.04.09"}, List("photos"));
  const SharePtr share = Find("photos");
  const ZORVSHAREINFO info = InfoOf(share);
  EXPECT_EQ(ZORV_SHARE_SOURCE_FILE, info.source);
  EXPECT_STREQ("/etc/zorv-snapusage.conf:3", info.place);
  EXPECT_STREQ("/volume1/deep/photos", info.path);
  EXPECT_STREQ("/volume1/.snaps", info.snapDir);
}

TEST_F(SharesFile, SnapshotsAreInDotSnapshotsUnlessItSaysOtherwise) {
  volume.Subvolume("photos");
  volume.Snapshot("photos", "photos/.snapshots/GMT-2024.03.05-09.04.09");
  WriteFile(kSharesFile, "[pictures]\npath = /volume1/photos\n");
  EXPECT_EQ((Names{"photos", "pictures"}), Shares());
  EXPECT_EQ(Names{"GMT-2024.03.05-09.04.09"}, List("pictures"));
}

TEST_F(SharesFile, FormatAndZone) {
  setenv("TZ", "Asia/Taipei", 1);
  tzset();
  volume.Subvolume("photos");
  const std::string id = std::to_string(
      SubvolumeID(volume.Snapshot("photos", "photos/.snapshots/photos.20240305T0904")));
  const std::string share = "[photos]\npath = /volume1/photos\nformat = photos.%Y%m%dT%H%M\n";
  WriteFile(kSharesFile, share);
  EXPECT_EQ(Names{"GMT-2024.03.05-01.04.00-" + id}, List("photos")) << "local";
  WriteFile(kSharesFile, share + "time = local\n");
  EXPECT_EQ(Names{"GMT-2024.03.05-01.04.00-" + id}, List("photos"));
  WriteFile(kSharesFile, share + "time = utc\n");
  EXPECT_EQ(Names{"GMT-2024.03.05-09.04.00-" + id}, List("photos"));
  unsetenv("TZ");
  tzset();
}

// A format that fits nothing was told apart from a share without snapshots by nobody.
TEST_F(SharesFile, SubvolumesThatDoNotFitAreCounted) {
  volume.Subvolume("photos");
  for (const char* name : {"photos-20240305", "photos.20240306", "other"})
    volume.Snapshot("photos", std::string("photos/.snapshots/") + name);
  fs::create_directory("/volume1/photos/.snapshots/folder");
  const char* format = nullptr;
  EXPECT_EQ(0, ZORVShareSnapUnfit(Find("photos").get(), &format));
  WriteFile(kSharesFile, "[photos]\npath = /volume1/photos\nformat = photos-%Y%m%d\n");
  const SharePtr share = Find("photos");
  EXPECT_EQ(2, ZORVShareSnapUnfit(share.get(), &format));
  EXPECT_STREQ("photos-%Y%m%d", format);
}

TEST_F(SharesFile, LayoutOfSnapper) {
  volume.Subvolume("photos");
  fs::create_directories("/volume1/photos/.snapshots/12");
  volume.Snapshot("photos", "photos/.snapshots/12/snapshot");
  WriteFile("/volume1/photos/.snapshots/12/info.xml",
            "<snapshot><type>single</type><num>12</num><date>2024-03-05 09:04:09</date>"
            "<description>by hand</description></snapshot>");
  WriteFile(kSharesFile, "[photos]\npath = /volume1/photos\nlayout = snapper\n");
  EXPECT_EQ(Names{"GMT-2024.03.05-09.04.09-12"}, List("photos"));
  EXPECT_STREQ("by hand", SnapInfo("photos", "GMT-2024.03.05-09.04.09-12")->description);
}

TEST_F(SharesFile, SourcesThatAreOffAreNotAsked) {
  volume.Subvolume("music");
  volume.Subvolume("photos");
  WriteFile("/etc/snapper/configs/home", "SUBVOLUME=/volume1/photos\nFSTYPE=btrfs\n");
  WriteFile(kSmbConf, "[global]\n[films]\npath = /volume1/photos\nvfs objects = shadow_copy2\n");
  EXPECT_EQ((Names{"films", "home", "music", "photos"}), Shares()) << Problem();
  WriteFile(kSharesFile, "snapper = off\nsamba = on\n");
  EXPECT_EQ((Names{"films", "music", "photos"}), Shares());
  WriteFile(kSharesFile, "samba = off\n");
  EXPECT_EQ((Names{"home", "music", "photos"}), Shares());
  WriteFile(kSharesFile, "volumes = off\n[music]\npath = /volume1/music\n");
  EXPECT_EQ((Names{"films", "home", "music"}), Shares());
  EXPECT_EQ(nullptr, Find("photos"));
  EXPECT_TRUE(FailedWith(0x1400));
}

TEST_F(SharesFile, AnErrorInItIsAnErrorNotAShorterList) {
  volume.Subvolume("photos");
  WriteFile(kSharesFile, "[photos]\npath = /volume1/photos\n\nformt = x\n");
  EXPECT_EQ(Names{"failed"}, Shares());
  EXPECT_TRUE(FailedWith(0x2B00));
  EXPECT_EQ("/etc/zorv-snapusage.conf:4: has the key formt, which is none of a share", Problem());
  EXPECT_EQ(nullptr, Find("photos"));
  EXPECT_TRUE(FailedWith(0x2B00));
}

TEST_F(SharesFile, WhoElseCanWriteItIsNotBelieved) {
  volume.Subvolume("photos");
  WriteFile(kSharesFile, "[pictures]\npath = /volume1/photos\n");
  EXPECT_NE(nullptr, Find("pictures"));
  for (const bool owner : {true, false}) {
    ASSERT_EQ(0, chown(kSharesFile, owner ? 4711 : 0, 0));
    ASSERT_EQ(0, chmod(kSharesFile, owner ? 0644 : 0664));
    EXPECT_EQ(Names{"failed"}, Shares());
    EXPECT_TRUE(FailedWith(0x2B00));
    EXPECT_EQ("/etc/zorv-snapusage.conf is not a file that root alone can write", Problem());
  }
  fs::remove(kSharesFile);
  ASSERT_EQ(0, mkfifo(kSharesFile, 0600));
  EXPECT_EQ(Names{"failed"}, Shares());
}

TEST_F(SharesFile, APathOnNoVolumeIsSaidWithTheNextStep) {
  const BtrfsVolume other("/mnt/other");
  WriteFile(kSharesFile, "[all]\npath = /mnt/other\n");
  EXPECT_EQ(Names{"all"}, Shares());
  EXPECT_EQ(nullptr, Find("all"));
  EXPECT_TRUE(FailedWith(0xBE00));
  EXPECT_EQ(
      "/etc/zorv-snapusage.conf:1: /mnt/other, the path of share all, lies on a file system "
      "that is no volume; make it one: ln -s /mnt/other /volume2",
      Problem());
}

}  // namespace
