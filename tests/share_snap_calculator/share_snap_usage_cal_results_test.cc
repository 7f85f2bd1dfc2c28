// Results of a share: from the persistent copy or the running task, totals, snapshot names.
#include <limits.h>

#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"
#include "zorvbtrfssnapusage/task_result.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;
using Vector = std::vector<unsigned long long>;

constexpr auto kBadOption = static_cast<TASK_RESULT_OPT>(7);

// ---- GetResultBasePath --------------------------------------------------------------------------

class ShareSnapUsageCalGetResultBasePath : public ShareTest {};

TEST_F(ShareSnapUsageCalGetResultBasePath, NamesTheShareAndChecksNothing) {
  EXPECT_EQ("/usr/local/zorvbtrfssnapusage/share_task_result/photos",
            ShareSnapUsageCal::GetResultBasePath("photos"));
  EXPECT_EQ("/usr/local/zorvbtrfssnapusage/share_task_result/ä b",
            ShareSnapUsageCal::GetResultBasePath("ä b"));
  EXPECT_FALSE(std::filesystem::exists(kPersistentDir));
}

// ---- GetResultVtr -------------------------------------------------------------------------------

class ShareSnapUsageCalGetResultVtr : public ShareTest {
 protected:
  ShareSnapUsageCalGetResultVtr() { PutMap(R"({"photos":)" + Entry("T1", 1) + "}"); }

  static std::string Copy(const std::string& name) {
    return ShareSnapUsageCal::GetResultBasePath("photos") + "/" + name;
  }
  static void PutCopy(const std::string& name, const Vector& values) {
    std::filesystem::create_directories(ShareSnapUsageCal::GetResultBasePath("photos"));
    ASSERT_EQ(0, TaskResult::WriteVtr(Copy(name), values));
  }
  int Get(const TASK_RESULT_OPT& opt) {
    return ShareSnapUsageCal::GetResultVtr(opt, "photos", values_);
  }

  Vector values_ = {99};
};

TEST_F(ShareSnapUsageCalGetResultVtr, PrefersThePersistentCopy) {
  PutCopy("T1.result", {10, 0, 5});
  PutCopy("T1.subvol_id", {257, 258, 259});
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "T1", Vector{1}));
  EXPECT_EQ(0, Get(TASK_RESULT_OPT_RESULT));
  EXPECT_EQ((Vector{10, 0, 5}), values_);
  EXPECT_EQ(0, Get(TASK_RESULT_OPT_SUBVOL_ID));
  EXPECT_EQ((Vector{257, 258, 259}), values_);
}

TEST_F(ShareSnapUsageCalGetResultVtr, WithoutTheCopyReadsTheVolatileVector) {
  PutCopy("T1.result", {10});
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "T1", Vector{1, 2}));
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "T1", Vector{3, 4}));
  std::filesystem::remove(Copy("T1.result"));
  EXPECT_EQ(0, Get(TASK_RESULT_OPT_RESULT));
  EXPECT_EQ((Vector{1, 2}), values_);
  EXPECT_EQ(0, Get(TASK_RESULT_OPT_SUBVOL_ID));
  EXPECT_EQ((Vector{3, 4}), values_);
}

TEST_F(ShareSnapUsageCalGetResultVtr, ReadsTheCurrentTasksCopyAlone) {
  PutCopy("OLD.result", {10});
  EXPECT_EQ(1, Get(TASK_RESULT_OPT_RESULT));
}

TEST_F(ShareSnapUsageCalGetResultVtr, MissingFileFails) {
  EXPECT_EQ(1, Get(TASK_RESULT_OPT_RESULT));
  EXPECT_EQ(1, Get(TASK_RESULT_OPT_SUBVOL_ID));
  EXPECT_EQ((Vector{99}), values_);
  EXPECT_FALSE(std::filesystem::exists(kTaskResultDir));
}

TEST_F(ShareSnapUsageCalGetResultVtr, ShareWithoutTaskIsNotFound) {
  EXPECT_EQ(8, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, "docs", values_));
  EXPECT_EQ((Vector{99}), values_);
}

TEST_F(ShareSnapUsageCalGetResultVtr, CodesOfTheLookUpComeThrough) {
  EXPECT_EQ(3, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, "", values_));
  PutDirectory(kShareMapLock);
  EXPECT_EQ(1, Get(TASK_RESULT_OPT_RESULT));
}

TEST_F(ShareSnapUsageCalGetResultVtr, UnknownOptionAddsNoSuffix) {
  EXPECT_EQ(1, Get(kBadOption));
  PutCopy("T1", {4});
  EXPECT_EQ(0, Get(kBadOption));
  EXPECT_EQ((Vector{4}), values_);
}

TEST_F(ShareSnapUsageCalGetResultVtr, ImpossibleCopyFails) {
  WriteFile(Copy("T1.result"), std::string(8, '\xff'));
  EXPECT_EQ(1, Get(TASK_RESULT_OPT_RESULT));
}

// ---- GetShareSnapAccumUsageVtr ------------------------------------------------------------------

class ShareSnapUsageCalGetShareSnapAccumUsageVtr : public ShareSnapUsageCalGetResultVtr {
 protected:
  int GetTotals() { return ShareSnapUsageCal::GetShareSnapAccumUsageVtr("photos", values_); }
};

TEST_F(ShareSnapUsageCalGetShareSnapAccumUsageVtr, AddsUp) {
  const struct {
    const char* name;
    Vector usage;
    Vector totals;
  } cases[] = {{"three", {10, 0, 5}, {10, 10, 15}},
               {"none", {}, {}},
               {"one", {7}, {7}},
               {"wraps", {ULLONG_MAX, 2, 3}, {ULLONG_MAX, 1, 4}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PutCopy("T1.result", c.usage);
    values_ = {99};
    EXPECT_EQ(0, GetTotals());
    EXPECT_EQ(c.totals, values_);
  }
}

TEST_F(ShareSnapUsageCalGetShareSnapAccumUsageVtr, EmptyUsageGivesEmptyTotals) {
  PutCopy("T1.result", {});
  EXPECT_EQ(0, GetTotals());
  EXPECT_EQ(Vector{}, values_);
}

TEST_F(ShareSnapUsageCalGetShareSnapAccumUsageVtr, EveryFailureIsOneAndLeavesTheOutput) {
  EXPECT_EQ(1, GetTotals());
  EXPECT_EQ(1, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("docs", values_));
  EXPECT_EQ(1, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("", values_));
  EXPECT_EQ((Vector{99}), values_);
}

// ---- FindSnapNameBySubvolID ---------------------------------------------------------------------

class ShareSnapUsageCalFindSnapNameBySubvolID : public ShareTest {
 protected:
  void PutSnapList(const std::string& snapList) {
    PutMap(R"({"photos":)" + Entry("T1", 1, snapList) + "}");
  }
  int Find(const Vector& ids) {
    return ShareSnapUsageCal::FindSnapNameBySubvolID("photos", ids, SzListRef(names_));
  }
  SzList names_ = MakeSzList();
};

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, NamesInTheOrderOfTheIDs) {
  PutSnapList(R"({"a":"257","b":"258","c":"18446744073709551615"})");
  EXPECT_EQ(0, Find({258, ULLONG_MAX, 257, 258}));
  EXPECT_EQ((std::vector<std::string>{"b", "c", "a", "b"}), TextsOf(names_.get()));
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, UnknownIDKeepsTheNamesBefore) {
  PutSnapList(R"({"a":"257","b":"258"})");
  EXPECT_EQ(8, Find({257, 300, 258}));
  EXPECT_EQ(std::vector<std::string>{"a"}, TextsOf(names_.get()));
  EXPECT_EQ(1, Errors("Snapshot name with subvol ID [300] is not found")) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, OfTwoTheNameThatSortsFirst) {
  PutSnapList(R"({"b":"257","a":"257"})");
  EXPECT_EQ(0, Find({257}));
  EXPECT_EQ(std::vector<std::string>{"a"}, TextsOf(names_.get()));
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, NullArgumentIsInvalid) {
  EXPECT_EQ(3, ShareSnapUsageCal::FindSnapNameBySubvolID("photos", {257}, nullptr));
  EXPECT_EQ(1, InvalidArguments("__null != ppListSnapName")) << syslog_.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, NullListIsInvalidWithoutAMessage) {
  PLATSZLIST* none = nullptr;
  EXPECT_EQ(3, ShareSnapUsageCal::FindSnapNameBySubvolID("photos", {257}, &none));
  EXPECT_EQ(3, ShareSnapUsageCal::FindSnapNameBySubvolID("photos", {}, &none));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, NoIDsDoNotReadTheMap) {
  PutDirectory(kShareMapLock);
  EXPECT_EQ(0, Find({}));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, FailedLockFails) {
  PutDirectory(kShareMapLock);
  EXPECT_EQ(1, Find({257}));
  EXPECT_EQ(
      1, Errors(std::string("Failed to lock the file, path: ") + kShareMapLock + ", exclusive: 0"))
      << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, FailedPushFails) {
  PutSnapList(R"({"a":"257","b":"258"})");
  PlatformHook<decltype(PLATCSzListPush)> push("PLATCSzListPush");
  push.FailsOnCall(2, 0x2A00);
  EXPECT_EQ(1, Find({257, 258}));
  EXPECT_EQ(std::vector<std::string>{"a"}, TextsOf(names_.get()));
  EXPECT_EQ(1, Errors("Failed to push [b] to the list" + HookTail(0x2A00))) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, SnapListsWithoutTheID) {
  const struct {
    const char* name;
    const char* snapList;
  } cases[] = {{"null", "null"},
               {"empty", "{}"},
               {"array", R"(["257"])"},
               {"text", R"("257")"},
               {"number", "257"},
               {"no number", R"({"a":"x257"})"},
               {"followed by something", R"({"a":"257 "})"},
               {"with a sign", R"({"a":"+257"})"},
               {"with a blank", R"({"a":" 257"})"},
               {"hexadecimal", R"({"a":"0x101"})"},
               {"beyond 64 bits", R"({"a":"18446744073709551873"})"},
               {"empty text", R"({"a":""})"},
               {"value is an array", R"({"a":["257"]})"},
               {"value is an object", R"({"a":{"257":"257"}})"},
               {"value is null", R"({"a":null})"},
               {"value is negative", R"({"a":-257})"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PutSnapList(c.snapList);
    EXPECT_EQ(8, Find({257}));
  }
  EXPECT_EQ(0, names_->count);
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, UnreadableMembersDoNotHideTheOthers) {
  PutSnapList(R"({"a":["257"],"b":"x","c":"257","d":null})");
  EXPECT_EQ(0, Find({257}));
  EXPECT_EQ(std::vector<std::string>{"c"}, TextsOf(names_.get()));
}

TEST_F(ShareSnapUsageCalFindSnapNameBySubvolID, ShareWithoutEntryHasNoSnapshots) {
  PutMap(R"({"docs":{}})");
  EXPECT_EQ(8, Find({257}));
}

}  // namespace
}  // namespace ZorvTest
