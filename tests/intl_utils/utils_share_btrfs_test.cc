// Share and snapshot queries on real volumes, through the real platform.
#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/btrfs_volume.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::SzList;
using ZorvBtrfsUsage::SzListRef;
using ZorvBtrfsUsage::Utils;

namespace {

constexpr char kFirst[] = "GMT-2024.03.05-12.00.00";
constexpr char kSecond[] = "GMT+01-2024.03.06-13.00.00";

// Two volumes: share "photos" with two snapshots on the first, "music" without on the second.
class UtilsShareBtrfs : public UtilsTest {
 protected:
  void SetUp() override {
    UtilsTest::SetUp();
    one.Subvolume("photos");
    one.Snapshot("photos", std::string("photos/.snapshots/") + kSecond);
    one.Snapshot("photos", std::string("photos/.snapshots/") + kFirst);
    two.Subvolume("music");
  }

  int List(const std::string& share, const std::vector<std::string>& selectors = {}) {
    Json::Value filter;
    filter["time"] = Json::Value(Json::arrayValue);
    for (const std::string& selector : selectors) filter["time"].append(selector);
    paths = ListOf({});
    return Utils::ShareSnapListGet(share, SzListRef(paths), filter);
  }

  int SameVolume(const std::vector<std::string>& wanted) {
    SzList list = ListOf(wanted);
    return Utils::SameVolumeCheck(SzListRef(list), volume);
  }

  BtrfsVolume one{"/volume1"};
  BtrfsVolume two{"/volume2"};
  SzList paths;
  int volume = 77;
};

class UtilsShareInfoGetBtrfs : public UtilsShareBtrfs {};
class UtilsShareSnapListGetBtrfs : public UtilsShareBtrfs {};
class UtilsSameVolumeCheckBtrfs : public UtilsShareBtrfs {};

std::string PathOf(const std::string& snapshot) { return "/volume1/photos/.snapshots/" + snapshot; }

}  // namespace

TEST_F(UtilsShareInfoGetBtrfs, FindsAShare) {
  _tag_ZORVSHARE* share = nullptr;
  ASSERT_EQ(0, Utils::ShareInfoGet("photos", &share));
  EXPECT_STREQ("photos", share->name);
  ZORVShareFree(share);
}

TEST_F(UtilsShareInfoGetBtrfs, AShareThatIsNotThereFailsAtOnce) {
  _tag_ZORVSHARE* share = nullptr;
  EXPECT_EQ(-1, Utils::ShareInfoGet("video", &share));
  EXPECT_EQ(nullptr, share);
  EXPECT_EQ(1, Logged(LOG_ERR, "ZORVShareGet failed. share (video)" + Tail())) << log.Dump();
  EXPECT_EQ(1u, log.Lines().size());
}

TEST_F(UtilsShareInfoGetBtrfs, AShareWhoseVolumeIsNotMountedIsTriedAgain) {
  PlatformHook<unsigned int(unsigned int)> sleeping("sleep");
  sleeping.Replace([](unsigned int) { return 0u; });
  PlatformHook<decltype(ZORVShareGet)> get("ZORVShareGet");
  WriteFile("/etc/fstab", "/dev/loop0 /volume2 btrfs defaults 0 0\n");
  two.Unmount();
  _tag_ZORVSHARE* share = nullptr;
  EXPECT_EQ(-1, Utils::ShareInfoGet("music", &share));
  EXPECT_EQ(15, get.Calls());
  EXPECT_EQ(0x0400u, PLATCErrGet());

  get.Replace([&](const char* name, _tag_ZORVSHARE** out) {
    if (get.Calls() == 18) two.Mount();  // the third try of this call
    return get.Real(name, out);
  });
  EXPECT_EQ(0, Utils::ShareInfoGet("music", &share));
  EXPECT_EQ(18, get.Calls());
  ZORVShareFree(share);
  std::filesystem::remove("/etc/fstab");
}

TEST_F(UtilsShareSnapListGetBtrfs, SnapshotsInTheOrderOfTheirTimes) {
  EXPECT_EQ(0, List("photos"));
  EXPECT_EQ((std::vector<std::string>{PathOf(kFirst), PathOf(kSecond)}), TextsOf(paths));
}

TEST_F(UtilsShareSnapListGetBtrfs, SelectorsMustAllHold) {
  EXPECT_EQ(0, List("photos", {std::string(">") + kFirst}));
  EXPECT_EQ(std::vector<std::string>{PathOf(kSecond)}, TextsOf(paths));
  EXPECT_EQ(0, List("photos", {std::string(">=") + kFirst, std::string("<") + kSecond}));
  EXPECT_EQ(std::vector<std::string>{PathOf(kFirst)}, TextsOf(paths));
  EXPECT_EQ(0, List("photos", {std::string(">") + kFirst, std::string("<") + kSecond}));
  EXPECT_EQ(0, paths->count);
}

TEST_F(UtilsShareSnapListGetBtrfs, AShareWithoutSnapshotsHasNone) {
  EXPECT_EQ(0, List("music"));
  EXPECT_EQ(0, paths->count);
  EXPECT_FALSE(std::filesystem::exists("/volume2/music/.snapshots"));
}

TEST_F(UtilsShareSnapListGetBtrfs, AShareThatIsNotThereFails) {
  EXPECT_EQ(-1, List("video"));
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to get share (video)" + Tail())) << log.Dump();
}

TEST_F(UtilsSameVolumeCheckBtrfs, SnapshotsOfOneShare) {
  EXPECT_EQ(0, SameVolume({PathOf(kFirst)}));
  EXPECT_EQ(1, volume);
  EXPECT_EQ(0, SameVolume({PathOf(kFirst), PathOf(kSecond)}));
  EXPECT_EQ(0, SameVolume({"/volume2/music"}));
  EXPECT_EQ(2, volume);
}

TEST_F(UtilsSameVolumeCheckBtrfs, DifferentVolumes) {
  EXPECT_EQ(1, SameVolume({PathOf(kFirst), "/volume2/music"}));
  EXPECT_EQ(77, volume);
}

TEST_F(UtilsSameVolumeCheckBtrfs, APathThatIsGoneLiesOnNoVolume) {
  EXPECT_EQ(-1, SameVolume({"/volume1/photos/.snapshots/gone"}));
  EXPECT_EQ(0xBE00u, PLATCErrGet());
  EXPECT_EQ(1, log.Count("Fail to parse volume path from [/volume1/photos/.snapshots/gone]"));
}

TEST_F(UtilsSameVolumeCheckBtrfs, AVolumeThatIsNotBtrfsIsOfTheWrongKind) {
  const ScopedTmpfs other("/volume3", "");
  WriteFile("/volume3/file", "");
  EXPECT_EQ(-1, SameVolume({"/volume3/file"}));
  EXPECT_EQ(0xD900u, PLATCErrGet());
  EXPECT_EQ(77, volume);
}
