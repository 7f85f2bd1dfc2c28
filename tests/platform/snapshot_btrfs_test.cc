// Snapshots of a share, on a real btrfs file system.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <zorvplatform/share.h>

#include <filesystem>
#include <memory>
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

// One volume with the share "photos".
class Snapshots : public testing::Test {
 protected:
  static void SetUpTestSuite() { volume = std::make_unique<BtrfsVolume>("/volume1"); }
  static void TearDownTestSuite() { volume.reset(); }

  Snapshots() {
    const std::string name = "photos" + std::to_string(++number);
    volume->Subvolume(name);
    path = volume->Path(name);
    EXPECT_EQ(0, ZORVShareGet(name.c_str(), &share));
  }
  ~Snapshots() override { ZORVShareFree(share); }

  void Take(const std::string& name, bool readOnly = true) const {
    volume->Snapshot(share->name, std::string(share->name) + "/.snapshots/" + name, readOnly);
  }

  // The names that pass, or {"failed"} with this code.
  Names List(const ZORVSHARESNAPSELECTOR* selectors = nullptr, unsigned int code = 0) const {
    PLATSZLIST* list = PLATCSzListAlloc(1);
    PLATCSzListPush(&list, "before");
    ClearError();
    const int result = ::ZORVShareSnapList(share, &list, selectors);
    Names names = Texts(list);
    PLATCSzListFree(list);
    EXPECT_EQ("before", names.front());
    names.erase(names.begin());
    if (result == 0) return names;
    EXPECT_GT(0, result);
    EXPECT_EQ(Names{}, names);
    EXPECT_EQ(code, PLATCErrGet());
    return {"failed"};
  }

  Names ListWhere(const Names& arguments) const {
    ZORVSHARESNAPSELECTOR* selectors = nullptr;
    for (const std::string& argument : arguments)
      EXPECT_EQ(0,
                ZORVShareSnapSelectorAdd(&selectors, ZORVShareSnapTimeSelector, argument.c_str()));
    const Names names = List(selectors);
    ZORVShareSnapEnumFree(selectors);
    return names;
  }

  static std::unique_ptr<BtrfsVolume> volume;
  static int number;
  ZORVSHARE* share = nullptr;
  std::string path;
};

std::unique_ptr<BtrfsVolume> Snapshots::volume;
int Snapshots::number = 0;

struct ZORVShareSnapList : Snapshots {};

TEST_F(ZORVShareSnapList, SubvolumesAlone) {
  Take("GMT-2024.03.05-09.04.09");
  Take("writable", false);
  volume->Subvolume(std::string(share->name) + "/.snapshots/made here");
  fs::create_directory(path + "/.snapshots/GMT-2024.03.06-09.04.09");
  WriteFile(path + "/.snapshots/GMT-2024.03.07-09.04.09", "a file");
  fs::create_symlink("GMT-2024.03.05-09.04.09", path + "/.snapshots/GMT-2024.03.08-09.04.09");
  fs::create_symlink("missing", path + "/.snapshots/dangling");
  EXPECT_EQ((Names{"GMT-2024.03.05-09.04.09", "made here", "writable"}), List());
}

TEST_F(ZORVShareSnapList, AMountThatKeepsOthersOutIsNoSnapshot) {
  Take("one");
  const ClosedMount closed(path + "/.snapshots/closed");
  EXPECT_EQ(Names{"one"}, List());
}

TEST_F(ZORVShareSnapList, AShareWithoutASnapshotDirectoryHasNoneAndGetsNone) {
  EXPECT_EQ(Names{}, List());
  char dir[4096];
  EXPECT_EQ(1, ::ZORVShareSnapGetOrCreateSnapDir(share, dir, sizeof dir, 0));
  EXPECT_EQ(path + "/.snapshots", dir);
  EXPECT_FALSE(fs::exists(dir));
}

TEST_F(ZORVShareSnapList, AnEmptySnapshotDirectory) {
  fs::create_directory(path + "/.snapshots");
  EXPECT_EQ(Names{}, List());
}

TEST_F(ZORVShareSnapList, InTheOrderOfTimesThenOfNamesThoseWithoutATimeLast) {
  const Names ordered = {"GMT-0330-2024.03.05-05.34.08",  // 09:04:08 UTC
                         "@GMT-2024.03.05-09.04.09",      // the same second four times
                         "GMT+0530-2024.03.05-14.34.09",
                         "GMT+08-2024.03.05-17.04.09",
                         "GMT-2024.03.05-09.04.09",
                         "GMT+14-2024.03.05-23.04.10",  // 09:04:10 UTC
                         "GMT-12-2024.03.04-22.00.00",  // 10:00:00 UTC
                         "GMT-2024.02.30-00.00.00",     // no such day
                         "a",
                         "b"};
  for (auto name = ordered.rbegin(); name != ordered.rend(); ++name) Take(*name);
  EXPECT_EQ(ordered, List());
}

TEST_F(ZORVShareSnapList, ThoseOfOneSecondInTheOrderOfTheirNumbers) {
  const Names ordered = {"GMT-2024.03.05-09.04.09", "GMT-2024.03.05-09.04.09-9",
                         "@GMT-2024.03.05-09.04.09-10", "GMT-2024.03.05-09.04.09-10",
                         "GMT-2024.03.05-09.04.10-1"};
  for (auto name = ordered.rbegin(); name != ordered.rend(); ++name) Take(*name);
  EXPECT_EQ(ordered, List());
}

TEST_F(ZORVShareSnapList, NamesOfEveryKind) {
  Names names = {" leading", ".hidden", "@", "line\nbreak", "with blank", "\xe5\x86\x99", "\xff"};
  names.push_back(std::string(255, 'n'));
  for (const std::string& name : names) Take(name);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, List());
}

TEST_F(ZORVShareSnapList, SelectorsAtTheBoundarySecond) {
  const std::string before = "GMT+08-2024.03.05-17.04.08";
  const std::string at = "GMT-0330-2024.03.05-05.34.09";
  const std::string after = "@GMT-2024.03.05-09.04.10";
  for (const std::string& name : {before, at, after}) Take(name);
  Take("without a time");
  const std::string now = "GMT+0530-2024.03.05-14.34.09";
  EXPECT_EQ((Names{at, after}), ListWhere({">=" + now}));
  EXPECT_EQ((Names{before, at}), ListWhere({"<=" + now}));
  EXPECT_EQ(Names{after}, ListWhere({">" + now}));
  EXPECT_EQ(Names{before}, ListWhere({"<" + now}));
  EXPECT_EQ(Names{at}, ListWhere({"=" + now}));
  EXPECT_EQ(Names{at}, ListWhere({">=" + now, "<=" + now}));
  EXPECT_EQ(Names{}, ListWhere({">" + now, "<" + now}));
  EXPECT_EQ((Names{before, at, after}),
            ListWhere({">=GMT+00-1970.01.01-00.00.00", "<=GMT-2038.01.01-00.00.00"}));
  EXPECT_EQ((Names{before, at, after, "without a time"}), ListWhere({}));
}

Names gAsked;

int NoteAndTakeShort(const char* snapName, const char* argument) {
  gAsked.push_back(std::string(snapName) + "/" + argument);
  return strlen(snapName) < 2 ? 1 : 0;
}

int FailWithCode(const char*, const char*) {
  PLATCErrSetEx(0x7700, "selector", 1);
  return -5;
}

TEST_F(ZORVShareSnapList, AnotherFunctionMaySelect) {
  Take("a");
  Take("bb");
  gAsked.clear();
  ZORVSHARESNAPSELECTOR* selectors = nullptr;
  std::string argument = "argument";
  ASSERT_EQ(0, ::ZORVShareSnapSelectorAdd(&selectors, NoteAndTakeShort, argument.c_str()));
  argument = "changed!";
  EXPECT_EQ(Names{"a"}, List(selectors));
  EXPECT_EQ((Names{"a/argument", "bb/argument"}), gAsked);
  ZORVShareSnapEnumFree(selectors);
}

TEST_F(ZORVShareSnapList, ASelectorThatFailsMakesTheListFail) {
  Take("a");
  ZORVSHARESNAPSELECTOR* selectors = nullptr;
  // The first does not hold, so nothing depends on the second; it is an error all the same.
  ASSERT_EQ(0, ::ZORVShareSnapSelectorAdd(&selectors, ZORVShareSnapTimeSelector,
                                          ">=GMT-2024.03.05-09.04.09"));
  ASSERT_EQ(0, ::ZORVShareSnapSelectorAdd(&selectors, FailWithCode, ""));
  EXPECT_EQ(Names{"failed"}, List(selectors, 0x7700));
  ZORVShareSnapEnumFree(selectors);
}

TEST_F(ZORVShareSnapList, ASnapshotDirectoryThatIsNoneMakesItFail) {
  WriteFile(path + "/.snapshots", "a file");
  EXPECT_EQ(Names{"failed"}, List(nullptr, 0x2A00));
  EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(ZORVShareSnapList, AShareThatIsGoneIsAnError) {
  Take("a");
  volume->DeleteSubvolume(std::string(share->name) + "/.snapshots/a");
  volume->DeleteSubvolume(share->name);
  EXPECT_EQ(Names{"failed"}, List(nullptr, 0x2A00));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(ZORVShareSnapList, ManySnapshots) {
  Names names;
  for (int i = 0; i < 100; ++i) {
    char name[64];
    snprintf(name, sizeof name, "GMT-2024.03.05-%02d.%02d.00", i / 60, i % 60);
    names.push_back(name);
  }
  for (int i = 0; i < 100; ++i) Take(names[static_cast<size_t>(i * 37 % 100)]);
  const std::set<int> before = OpenDescriptors();
  EXPECT_EQ(names, List());
  EXPECT_EQ(before, OpenDescriptors());
}

struct ZORVShareSnapGetOrCreateSnapDir : Snapshots {};

TEST_F(ZORVShareSnapGetOrCreateSnapDir, CreatesItWhenAskedTo) {
  umask(0022);
  char dir[4096] = "";
  EXPECT_EQ(1, ::ZORVShareSnapGetOrCreateSnapDir(share, dir, sizeof dir, 1));
  EXPECT_EQ(path + "/.snapshots", dir);
  EXPECT_EQ(0755, ModeOf(dir));
  EXPECT_EQ(1, PLATCFileCheckDir(dir));
  EXPECT_EQ(1, ::ZORVShareSnapGetOrCreateSnapDir(share, dir, sizeof dir, 1));  // is there now
}

TEST_F(ZORVShareSnapGetOrCreateSnapDir, FailsWhereItCannotBeMade) {
  MustRun({kStockBtrfs, "property", "set", path, "ro", "true"});
  char dir[4096] = "untouched";
  ClearError();
  EXPECT_GT(0, ::ZORVShareSnapGetOrCreateSnapDir(share, dir, sizeof dir, 1));
  EXPECT_EQ(EROFS, errno);
  EXPECT_TRUE(FailedWith(0x2A00));
  EXPECT_STREQ("untouched", dir);
}

TEST_F(ZORVShareSnapGetOrCreateSnapDir, ABufferThatIsTooSmallIsRefused) {
  const std::string expected = path + "/.snapshots";
  const int exact = static_cast<int>(expected.size()) + 1;
  char dir[4096] = "untouched";
  for (const int size : {-1, 0, 1, exact - 1}) {
    ClearError();
    EXPECT_GT(0, ::ZORVShareSnapGetOrCreateSnapDir(share, dir, size, 0));
    EXPECT_TRUE(FailedWith(0x0D00));
    EXPECT_STREQ("untouched", dir);
  }
  EXPECT_EQ(1, ::ZORVShareSnapGetOrCreateSnapDir(share, dir, exact, 0));
  EXPECT_EQ(expected, dir);
}

TEST_F(ZORVShareSnapGetOrCreateSnapDir, OtherFlagsAreRefused) {
  char dir[4096];
  for (const int flags : {-1, 2, 3}) {
    ClearError();
    EXPECT_GT(0, ::ZORVShareSnapGetOrCreateSnapDir(share, dir, sizeof dir, flags));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
}

struct ZORVShareSnapInfoGet : Snapshots {};

TEST_F(ZORVShareSnapInfoGet, AVolumeTellsNoMoreThanTheName) {
  Take("by hand");
  ZORVSHARESNAPINFO* info = nullptr;
  ASSERT_EQ(0, ::ZORVShareSnapInfoGet(share, "by hand", &info));
  EXPECT_STREQ("by hand", info->sourceName);
  EXPECT_EQ(0u, info->number);
  EXPECT_STREQ("", info->type);
  EXPECT_STREQ("", info->description);
  EXPECT_STREQ("", info->problem);
  ZORVShareSnapInfoFree(info);
}

}  // namespace
