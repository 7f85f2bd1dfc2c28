// The share-to-task map: look-ups, removals, and what becomes of a map of another shape.
#include <limits.h>

#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;

constexpr time_t kNow = 1750000000;
const std::string kMapLockFailed = std::string("Failed to lock the file, path: ") + kShareMapLock;

// ---- FindTaskID ---------------------------------------------------------------------------------

class ShareSnapUsageCalFindTaskID : public ShareTest {
 protected:
  int Find(const std::string& share) { return ShareSnapUsageCal::FindTaskID(share, id_, expired_); }

  Clock clock_{kNow};
  std::string id_ = "as it was";
  bool expired_ = false;
};

TEST_F(ShareSnapUsageCalFindTaskID, EmptyNameIsInvalid) {
  expired_ = true;
  EXPECT_EQ(3, Find(""));
  EXPECT_TRUE(expired_);
  EXPECT_EQ(1, InvalidArguments("!shareName.empty()")) << syslog_.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_STREQ(kShareUnit, PLATCErrorGetFile());
}

TEST_F(ShareSnapUsageCalFindTaskID, ShareWithoutMemberClearsTheID) {
  PutMap(R"({"music":)" + Entry("T1", kNow) + "}");
  EXPECT_EQ(8, Find("photos"));
  EXPECT_EQ("", id_);
  EXPECT_EQ(0, LinesOfUnit());
}

TEST_F(ShareSnapUsageCalFindTaskID, MissingMapHasNoShares) {
  EXPECT_EQ(8, Find("photos"));
  EXPECT_EQ("", id_);
  EXPECT_FALSE(std::filesystem::exists(kShareMap));
}

TEST_F(ShareSnapUsageCalFindTaskID, FindsTheTask) {
  PutMap(R"({"photos":)" + Entry("T1", kNow) + "}");
  expired_ = true;
  EXPECT_EQ(0, Find("photos"));
  EXPECT_EQ("T1", id_);
  EXPECT_FALSE(expired_);
}

TEST_F(ShareSnapUsageCalFindTaskID, ExpiresFrom120SecondsOn) {
  const struct {
    const char* name;
    time_t age;
    bool expired;
  } cases[] = {{"from the future", -10, false},
               {"new", 0, false},
               {"119 seconds", 119, false},
               {"120 seconds", 120, true},
               {"a year", 31536000, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PutMap(R"({"photos":)" + Entry("T1", kNow - c.age) + "}");
    expired_ = !c.expired;
    EXPECT_EQ(0, Find("photos"));
    EXPECT_EQ(c.expired, expired_);
  }
}

TEST_F(ShareSnapUsageCalFindTaskID, FailedLockFails) {
  PutMap(R"({"photos":)" + Entry("T1", kNow) + "}");
  PutDirectory(kShareMapLock);
  EXPECT_EQ(1, Find("photos"));
  EXPECT_EQ("as it was", id_);
  EXPECT_EQ(1, Errors(kMapLockFailed + ", exclusive: 0")) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalFindTaskID, FailedClockFailsWithTheIDSet) {
  PutMap(R"({"photos":)" + Entry("T1", kNow) + "}");
  clock_.Set(-1);
  expired_ = true;
  EXPECT_EQ(1, Find("photos"));
  EXPECT_EQ("T1", id_);
  EXPECT_TRUE(expired_);
}

TEST_F(ShareSnapUsageCalFindTaskID, EntriesOfAnotherShapeNameNoTask) {
  const struct {
    const char* name;
    const char* entry;
  } cases[] = {{"text", R"("T1")"},
               {"number", "7"},
               {"null", "null"},
               {"array", R"(["task_id"])"},
               {"no members", "{}"},
               {"no ID", R"({"time":1750000000})"},
               {"ID is null", R"({"task_id":null,"time":1750000000})"},
               {"ID is empty", R"({"task_id":"","time":1750000000})"},
               {"ID is an array", R"({"task_id":["T1"],"time":1750000000})"},
               {"ID is an object", R"({"task_id":{"T1":1},"time":1750000000})"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PutMap(std::string(R"({"photos":)") + c.entry + "}");
    id_ = "as it was";
    EXPECT_EQ(8, Find("photos"));
    EXPECT_EQ("", id_);
  }
}

TEST_F(ShareSnapUsageCalFindTaskID, NumberAsIDReadsAsItsText) {
  PutMap(R"({"photos":{"task_id":17,"time":1750000000}})");
  EXPECT_EQ(0, Find("photos"));
  EXPECT_EQ("17", id_);
}

TEST_F(ShareSnapUsageCalFindTaskID, EntryWithoutTimeHasExpired) {
  PutMap(R"({"photos":{"task_id":"T1"}})");
  EXPECT_EQ(0, Find("photos"));
  EXPECT_TRUE(expired_);
}

TEST_F(ShareSnapUsageCalFindTaskID, TimesThatAreNoUnsigned32BitNumbersFail) {
  for (const char* time : {R"("1750000000")", "-1", "4294967296", "1e30", "[1750000000]", "{}"}) {
    SCOPED_TRACE(time);
    PutMap(std::string(R"({"photos":{"task_id":"T1","time":)") + time + "}}");
    expired_ = true;
    EXPECT_EQ(1, Find("photos"));
    EXPECT_EQ("T1", id_);
    EXPECT_TRUE(expired_);
  }
}

TEST_F(ShareSnapUsageCalFindTaskID, LargestUnsigned32BitTimeIsRead) {
  PutMap(R"({"photos":{"task_id":"T1","time":4294967295}})");
  expired_ = true;
  EXPECT_EQ(0, Find("photos"));
  EXPECT_FALSE(expired_);
}

// ---- FindValidTaskID ----------------------------------------------------------------------------

class ShareSnapUsageCalFindValidTaskID : public ShareTest {
 protected:
  Clock clock_{kNow};
  std::string id_ = "as it was";
};

TEST_F(ShareSnapUsageCalFindValidTaskID, Entry119SecondsOldIsFound) {
  PutMap(R"({"photos":)" + Entry("T1", kNow - 119) + "}");
  EXPECT_EQ(0, ShareSnapUsageCal::FindValidTaskID("photos", id_));
  EXPECT_EQ("T1", id_);
}

TEST_F(ShareSnapUsageCalFindValidTaskID, Entry120SecondsOldIsNotFoundButNamed) {
  PutMap(R"({"photos":)" + Entry("T1", kNow - 120) + "}");
  EXPECT_EQ(8, ShareSnapUsageCal::FindValidTaskID("photos", id_));
  EXPECT_EQ("T1", id_);
}

TEST_F(ShareSnapUsageCalFindValidTaskID, CodesOfTheLookUpComeThrough) {
  EXPECT_EQ(3, ShareSnapUsageCal::FindValidTaskID("", id_));
  EXPECT_EQ(8, ShareSnapUsageCal::FindValidTaskID("photos", id_));
  EXPECT_EQ("", id_);
  PutDirectory(kShareMapLock);
  EXPECT_EQ(1, ShareSnapUsageCal::FindValidTaskID("photos", id_));
}

// ---- FindShareNameByTaskID ----------------------------------------------------------------------

class ShareSnapUsageCalFindShareNameByTaskID : public ShareTest {
 protected:
  int Find(const std::string& id) { return ShareSnapUsageCal::FindShareNameByTaskID(id, share_); }
  std::string share_ = "as it was";
};

TEST_F(ShareSnapUsageCalFindShareNameByTaskID, EmptyIDIsInvalid) {
  EXPECT_EQ(3, Find(""));
  EXPECT_EQ("as it was", share_);
  EXPECT_EQ(1, InvalidArguments("!taskID.empty()")) << syslog_.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
}

TEST_F(ShareSnapUsageCalFindShareNameByTaskID, FindsTheShare) {
  PutMap(R"({"docs":)" + Entry("T1", kNow) + R"(,"photos":)" + Entry("T2", kNow) + "}");
  EXPECT_EQ(0, Find("T2"));
  EXPECT_EQ("photos", share_);
}

TEST_F(ShareSnapUsageCalFindShareNameByTaskID, OfTwoTheNameThatSortsFirst) {
  PutMap(R"({"photos":)" + Entry("T1", kNow) + R"(,"docs":)" + Entry("T1", kNow) + "}");
  EXPECT_EQ(0, Find("T1"));
  EXPECT_EQ("docs", share_);
}

TEST_F(ShareSnapUsageCalFindShareNameByTaskID, UnknownIDLeavesTheNameAlone) {
  PutMap(R"({"docs":)" + Entry("T1", kNow) + "}");
  for (const char* id : {"T", "T11", "t1", " T1"}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(8, Find(id));
  }
  EXPECT_EQ("as it was", share_);
}

TEST_F(ShareSnapUsageCalFindShareNameByTaskID, EntriesOfAnotherShapeAreSkipped) {
  PutMap(R"({"a":"T1","b":["T1"],"c":{"task_id":["T1"]},"d":null,"e":{},"f":)" + Entry("T1", kNow) +
         "}");
  EXPECT_EQ(0, Find("T1"));
  EXPECT_EQ("f", share_);
}

// The ID as a name and a value of other members, and as a part of another ID.
TEST_F(ShareSnapUsageCalFindShareNameByTaskID, IDElsewhereInAnEntryIsNoTask) {
  PutMap(R"({"T1":)" + Entry("T3", kNow) + R"(,"a":)" + Entry("T2", kNow, R"({"T1":"T1"})") +
         R"(,"b":)" + Entry("xT1x", kNow) + R"(,"c":)" + Entry("T1", kNow) + "}");
  EXPECT_EQ(0, Find("T1"));
  EXPECT_EQ("c", share_);
}

TEST_F(ShareSnapUsageCalFindShareNameByTaskID, MapInAnyFormIsRead) {
  for (const char* map :
       {"{ \"photos\" : {\"task_id\":\"T1\"} }\n", R"({"photos":{"task_id":"\u0054\u0031"}})",
        R"({"photos":{"time":1.5,"task_id":"T1"}})"}) {
    SCOPED_TRACE(map);
    PutMap(map);
    share_ = "as it was";
    EXPECT_EQ(0, Find("T1"));
    EXPECT_EQ("photos", share_);
  }
}

TEST_F(ShareSnapUsageCalFindShareNameByTaskID, OneOfAThousandShares) {
  std::string map;
  for (int share = 1000; share < 2000; ++share)
    map += (map.empty() ? "{\"s" : ",\"s") + std::to_string(share) +
           "\":" + Entry("T" + std::to_string(share), kNow);
  PutMap(map + "}");
  for (const char* number : {"1000", "1500", "1999"}) {
    EXPECT_EQ(0, Find(std::string("T") + number));
    EXPECT_EQ(std::string("s") + number, share_);
  }
  EXPECT_EQ(8, Find("T2000"));
}

TEST_F(ShareSnapUsageCalFindShareNameByTaskID, FailedLockFails) {
  PutDirectory(kShareMapLock);
  EXPECT_EQ(1, Find("T1"));
  EXPECT_EQ(1, Errors(kMapLockFailed + ", exclusive: 0")) << syslog_.Dump();
}

// ---- GetShareTaskList ---------------------------------------------------------------------------

class ShareSnapUsageCalGetShareTaskList : public ShareTest {
 protected:
  bool Get() { return ShareSnapUsageCal::GetShareTaskList(SzListRef(list_)); }
  SzList list_ = MakeSzList();
};

TEST_F(ShareSnapUsageCalGetShareTaskList, PushesAllNamesSorted) {
  ASSERT_GE(PLATCSzListPush(SzListRef(list_), "before"), 0);
  PutMap(R"({"photos":{},"docs":1,"ä b":{},"":{}})");
  EXPECT_TRUE(Get());
  EXPECT_EQ((std::vector<std::string>{"before", "", "docs", "photos", "ä b"}),
            TextsOf(list_.get()));
}

TEST_F(ShareSnapUsageCalGetShareTaskList, EmptyAndMissingMapsPushNothing) {
  EXPECT_TRUE(Get());
  PutMap("{}");
  EXPECT_TRUE(Get());
  EXPECT_EQ(0, list_->count);
}

TEST_F(ShareSnapUsageCalGetShareTaskList, FailedLockFails) {
  PutDirectory(kShareMapLock);
  EXPECT_FALSE(Get());
  EXPECT_EQ(1, Errors(kMapLockFailed + ", exclusive: 0")) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalGetShareTaskList, FailedPushKeepsTheNamesBefore) {
  PutMap(R"({"a":{},"b":{},"c":{}})");
  PlatformHook<decltype(PLATCSzListPush)> push("PLATCSzListPush");
  push.FailsOnCall(2, 0x2A00);
  EXPECT_FALSE(Get());
  EXPECT_EQ(std::vector<std::string>{"a"}, TextsOf(list_.get()));
  EXPECT_EQ(1, Errors("Failed to push [b] to the list" + HookTail(0x2A00))) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalGetShareTaskList, NullListFails) {
  PutMap(R"({"a":{}})");
  EXPECT_FALSE(ShareSnapUsageCal::GetShareTaskList(nullptr));
}

// ---- Removal of an entry, as CleanAll does it ---------------------------------------------------

class ShareSnapUsageCalRemoveShareFromTaskMap : public ShareTest {
 protected:
  const std::string removeFailed_ = "Failed to remove member in the task share map, share: photos";
};

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, PrunesSharesThatNoLongerExist) {
  KnownShares known({"docs", "photos"});
  PutMap(R"({"docs":{"x":1},"gone":{},"old":7,"photos":{}})");
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(R"({"docs":{"x":1}})", MapText());
}

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, ShareThatIsGoneItselfIsRemoved) {
  KnownShares known({"docs"});
  PutMap(R"({"docs":{},"photos":{}})");
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(R"({"docs":{}})", MapText());
}

// The entry goes while the results are being cleaned, so that the removal finds nothing.
TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, ShareWithoutMemberLeavesTheFileAsItIs) {
  KnownShares known({"docs"});
  PutMap(R"({"docs":{}, "photos":{}})");
  const std::string others = R"({ "gone": {},   "docs":{} })";
  PlatformHook<decltype(PLATCFileEnumDir)> list("PLATCFileEnumDir");
  list.Replace([&](const char*, int, PLATSZLIST**, int) {
    PutMap(others);
    return -1;
  });
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(others, MapText());
  EXPECT_EQ(0, syslog_.Count(removeFailed_)) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, EmptyMapIsNotWritten) {
  KnownShares known({"docs"});
  for (const char* map : {"{}", "null", "", "[]", R"(["photos"])", R"("photos")", "5"}) {
    SCOPED_TRACE(map);
    PutMap(R"({"photos":{}})");
    PlatformHook<decltype(PLATCFileEnumDir)> list("PLATCFileEnumDir");
    list.Replace([&](const char*, int, PLATSZLIST**, int) {
      PutMap(map);
      return -1;
    });
    ShareSnapUsageCal::CleanAll("photos");
    EXPECT_EQ(map, MapText());
  }
  EXPECT_EQ(0, syslog_.Count(removeFailed_)) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, AsksForAllShares) {
  PutMap(R"({"photos":{}})");
  int flags = 0;
  PlatformHook<decltype(ZORVShareEnum)> shares("ZORVShareEnum");
  shares.Replace([&](PLATSZLIST**, int asked) {
    flags = asked;
    return 0;
  });
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(0x301, flags);
  EXPECT_EQ("{}", MapText());
}

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, FailedAllocationFails) {
  PutMap(R"({"photos":{}})");
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.AlwaysFails(0x2A00);
  ShareSnapUsageCal::CleanAll("photos");
  // Once for the lists of the results, once for the shares.
  EXPECT_EQ(2, Errors("PLATCSzListAlloc failed. " + HookTail(0x2A00))) << syslog_.Dump();
  EXPECT_EQ(1, Errors(removeFailed_ + HookTail(0x2A00))) << syslog_.Dump();
  EXPECT_EQ(R"({"photos":{}})", MapText());
}

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, ListHasRoomFor1024Shares) {
  PutMap(R"({"photos":{}})");
  std::vector<int> capacities;
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.Replace([&](int capacity) {
    capacities.push_back(capacity);
    return alloc.Real(capacity);
  });
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ((std::vector<int>{1024, 1024, 1024}), capacities);
}

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, FailedEnumerationFails) {
  PutMap(R"({"gone":{},"photos":{}})");
  PlatformHook<decltype(ZORVShareEnum)> shares("ZORVShareEnum");
  shares.AlwaysFails(0x0400);
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(1, Errors("Fail in ZORVShareEnum" + HookTail(0x0400))) << syslog_.Dump();
  EXPECT_EQ(1, Errors(removeFailed_ + HookTail(0x0400))) << syslog_.Dump();
  EXPECT_EQ(R"({"gone":{},"photos":{}})", MapText());
}

// The lock is taken away once the map has been read for the first time.
TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, FailedLockFails) {
  PutMap(R"({"photos":{}})");
  PlatformHook<decltype(ZORVShareEnum)> shares("ZORVShareEnum");
  shares.Replace([](PLATSZLIST**, int) {
    PutDirectory(kShareMapLock);
    return 0;
  });
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(1, Errors(kMapLockFailed + ", exclusive: 1")) << syslog_.Dump();
  EXPECT_EQ(1, syslog_.Count(removeFailed_)) << syslog_.Dump();
  EXPECT_EQ(R"({"photos":{}})", MapText());
}

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, UnreadableListElementFailsWithoutWriting) {
  KnownShares known({"docs", "photos"});
  PutMap(R"({"docs":{},"gone":{},"photos":{}})");
  PlatformHook<decltype(PLATCSzListGet)> get("PLATCSzListGet");
  get.AlwaysFails(0x0D00);
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(1, Errors("Failed to get element from list" + HookTail(0x0D00))) << syslog_.Dump();
  EXPECT_EQ(1, Errors(removeFailed_ + HookTail(0x0D00))) << syslog_.Dump();
  EXPECT_EQ(R"({"docs":{},"gone":{},"photos":{}})", MapText());
}

TEST_F(ShareSnapUsageCalRemoveShareFromTaskMap, FailedWriteFails) {
  KnownShares known({"photos"});
  PutMap(R"({"photos":{}})");
  UnwritableFile map(kShareMap);
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(1, syslog_.Count(removeFailed_)) << syslog_.Dump();
  EXPECT_EQ(R"({"photos":{}})", MapText());
}

// ---- Maps that somebody else has written --------------------------------------------------------

std::string Nested(int levels) {
  return R"({"deep":)" + std::string(levels, '[') + std::string(levels, ']') + "}";
}

// Text of JSON maps in which no share has a task.
std::vector<std::pair<const char*, std::string>> ForeignMaps() {
  return {{"empty file", ""},
          {"truncated", R"({"phot)"},
          {"no JSON", "photos = T1\n"},
          {"array", R"([{"photos":{"task_id":"T1"}}])"},
          {"number", "42"},
          {"text", R"("photos")"},
          {"boolean", "true"},
          {"null", "null"},
          {"nested 2,000 deep", Nested(2000)},
          {"binary", std::string("\0\xff\xfe{", 4)},
          {"50 MB of one text", R"({"big":")" + std::string(50 << 20, 'x') + R"("})"}};
}

class ShareSnapUsageCalForeignMap : public ShareTest {};

TEST_F(ShareSnapUsageCalForeignMap, LookUpsFindNothing) {
  for (const auto& [name, text] : ForeignMaps()) {
    SCOPED_TRACE(name);
    PutMap(text);
    std::string id = "x";
    bool expired = false;
    EXPECT_EQ(8, ShareSnapUsageCal::FindTaskID("photos", id, expired));
    EXPECT_EQ(8, ShareSnapUsageCal::FindValidTaskID("photos", id));
    std::string share = "as it was";
    EXPECT_EQ(8, ShareSnapUsageCal::FindShareNameByTaskID("T1", share));
    EXPECT_EQ("as it was", share);
    EXPECT_EQ(8, ShareSnapUsageCal::Stop("photos"));
    std::vector<unsigned long long> values = {1};
    EXPECT_EQ(8, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, "photos", values));
    EXPECT_EQ(1, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("photos", values));
    SzList names = MakeSzList();
    EXPECT_EQ(8, ShareSnapUsageCal::FindSnapNameBySubvolID("photos", {257}, SzListRef(names)));
    EXPECT_TRUE(ShareSnapUsageCal::CheckAvail("photos", id));
    EXPECT_EQ(text, MapText());
  }
}

TEST_F(ShareSnapUsageCalForeignMap, CleanupsHaveNothingToDo) {
  KnownShares known({});
  for (const char* text : {"", "[1]", "42", R"("photos")", "null", "{"}) {
    SCOPED_TRACE(text);
    PutMap(text);
    ShareSnapUsageCal::CleanAll("photos");
    EXPECT_EQ(0, ShareSnapUsageCal::CleanAllSResult());
    EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
    SzList list = MakeSzList();
    EXPECT_TRUE(ShareSnapUsageCal::GetShareTaskList(SzListRef(list)));
    EXPECT_EQ(0, list->count);
    EXPECT_EQ(text, MapText());
  }
}

TEST_F(ShareSnapUsageCalForeignMap, DirectoryInItsPlaceReadsAsNoMap) {
  PutDirectory(kShareMap);
  std::string id;
  bool expired = false;
  EXPECT_EQ(8, ShareSnapUsageCal::FindTaskID("photos", id, expired));
  ShareSnapUsageCal cal;
  EXPECT_EQ(1, cal.CreateTask("photos"));
  EXPECT_TRUE(std::filesystem::is_directory(kShareMap));
}

TEST_F(ShareSnapUsageCalForeignMap, CreateTaskDoesNotOverwriteAMapOfAnotherShape) {
  const struct {
    const char* name;
    const char* map;
  } cases[] = {{"array", "[1,2]"},
               {"number", "42"},
               {"text", R"("photos")"},
               {"entry is a text", R"({"photos":"T1"})"},
               {"entry is an array", R"({"photos":[1]})"},
               {"entry is a number", R"({"photos":1})"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PutMap(c.map);
    ShareSnapUsageCal cal;
    EXPECT_EQ(1, cal.CreateTask("photos"));
    EXPECT_EQ(c.map, MapText());
    EXPECT_EQ(
        1, syslog_.CountExact(LOG_DEBUG, kShareUnit,
                              std::string("Failed to write Json data to file, path: ") + kShareMap))
        << syslog_.Dump();
    syslog_.Clear();
  }
}

TEST_F(ShareSnapUsageCalForeignMap, CreateTaskReplacesAMapThatIsNoJson) {
  for (const char* text : {"", "{", "photos = T1", "null"}) {
    SCOPED_TRACE(text);
    PutMap(text);
    ShareSnapUsageCal cal;
    EXPECT_EQ(0, cal.CreateTask("photos"));
    std::string id;
    EXPECT_EQ(0, ShareSnapUsageCal::FindValidTaskID("photos", id));
  }
}

TEST_F(ShareSnapUsageCalForeignMap, CreateTaskKeepsWhatItDoesNotKnow) {
  PutMap(R"({"docs":5,"photos":{"note":[1],"task_id":{"x":1},"time":"never"}})");
  Clock clock(kNow);
  ShareSnapUsageCal cal;
  ASSERT_EQ(0, cal.CreateTask("photos"));
  std::string id;
  EXPECT_EQ(0, ShareSnapUsageCal::FindValidTaskID("photos", id));
  EXPECT_EQ(R"({"docs":5,"photos":{"note":[1],"snap_list":null,"task_id":")" + id +
                R"(","time":1750000000}})",
            MapText());
}

}  // namespace
}  // namespace ZorvTest
