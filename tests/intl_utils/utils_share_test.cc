// ShareInfoGet, SameVolumeCheck and ShareSnapListGet: the failures that a real system does not give
// on demand. The real ones are in utils_share_btrfs_test.cc.
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "tests/support/scarce_memory.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::SzList;
using ZorvBtrfsUsage::SzListRef;
using ZorvBtrfsUsage::Utils;

namespace {

using GetHook = PlatformHook<decltype(ZORVShareGet)>;
using SleepHook = PlatformHook<unsigned int(unsigned int)>;

class UtilsShareInfoGet : public UtilsTest {
 protected:
  void SetUp() override {
    UtilsTest::SetUp();
    sleeping.Replace([this](unsigned int seconds) {
      pauses.push_back(seconds);
      return 0u;
    });
  }

  GetHook get{"ZORVShareGet"};
  SleepHook sleeping{"sleep"};
  std::vector<unsigned int> pauses;
  _tag_ZORVSHARE* share = nullptr;
};

// Paths "/volumeN/..." lie on volume N, of btrfs unless N is `otherKind`.
class UtilsSameVolumeCheck : public UtilsTest {
 protected:
  void SetUp() override {
    UtilsTest::SetUp();
    parse.Replace([](const char* path, char* out, int size) {
      if (strncmp(path, "/volume", 7) != 0) {
        PLATCErrSetEx(0x1111, "tests/hook", 1);
        return -1;
      }
      snprintf(out, static_cast<size_t>(size), "%.8s", path);
      return 0;
    });
    info.Replace([this](const char* volumePath, ZORVMOUNTVOLINFO* out) {
      const int number = volumePath[7] - '0';
      if (number == lost) {
        PLATCErrSetEx(0x2222, "tests/hook", 1);
        return -1;
      }
      *out = {number, number == otherKind ? 1 : 3};
      return 0;
    });
  }

  int Check(const std::vector<std::string>& paths) {
    SzList list = ListOf(paths);
    return Utils::SameVolumeCheck(SzListRef(list), volume);
  }

  PlatformHook<decltype(VolumePathParseEx)> parse{"VolumePathParseEx"};
  PlatformHook<decltype(ZORVMountVolInfoGet)> info{"ZORVMountVolInfoGet"};
  int lost = 0;
  int otherKind = 0;
  int volume = 77;
};

// A share "photos" of the hooks' making, with the snapshots "b" and "a".
class UtilsShareSnapListGet : public UtilsTest {
 protected:
  void SetUp() override {
    UtilsTest::SetUp();
    static char name[] = "photos";
    static _tag_ZORVSHARE record;
    record.name = name;
    get.Replace([](const char* wanted, _tag_ZORVSHARE** out) {
      if (strcmp(wanted, "photos") != 0) {
        PLATCErrSetEx(0x1400, "tests/hook", 1);
        return -1;
      }
      *out = &record;
      return 0;
    });
    shareFree.Replace([this](_tag_ZORVSHARE* freed) { freedRight = freed == &record; });
    list.Replace(
        [this](const _tag_ZORVSHARE*, PLATSZLIST** names, const ZORVSHARESNAPSELECTOR* selectors) {
          hadSelectors = selectors != nullptr;
          PLATCSzListPush(names, "b");
          PLATCSzListPush(names, "a");
          return 0;
        });
    directory.Replace([this](const _tag_ZORVSHARE*, char* dir, int size, int flags) {
      dirSize = size;
      dirFlags = flags;
      snprintf(dir, static_cast<size_t>(size), "/volume1/photos/.snapshots");
      return dirResult;
    });
    add.Replace(
        [this](ZORVSHARESNAPSELECTOR** chain, ZORVSHARESNAPSELECTFN fn, const char* argument) {
          selectedByTime = fn == ZORVShareSnapTimeSelector;
          arguments.push_back(argument);
          return add.Real(chain, fn, argument);
        });
  }

  int Get(const Json::Value& filter = {}, const std::string& name = "photos") {
    return Utils::ShareSnapListGet(name, SzListRef(paths), filter);
  }

  static Json::Value TimeFilter(const Json::Value& time) {
    Json::Value filter;
    filter["time"] = time;
    return filter;
  }

  static Json::Value Array(const std::vector<Json::Value>& elements) {
    Json::Value array(Json::arrayValue);
    for (const Json::Value& element : elements) array.append(element);
    return array;
  }

  void ExpectAllSnapshots() {
    EXPECT_EQ(
        (std::vector<std::string>{"/volume1/photos/.snapshots/b", "/volume1/photos/.snapshots/a"}),
        TextsOf(paths));
    EXPECT_FALSE(hadSelectors);
    EXPECT_TRUE(arguments.empty());
  }

  // What was taken has been given back; nothing was appended.
  void ExpectNothingLeft() {
    EXPECT_EQ(0, paths->count);
    EXPECT_EQ(1, shareFree.Calls());
    EXPECT_TRUE(freedRight);
  }

  GetHook get{"ZORVShareGet"};
  PlatformHook<decltype(ZORVShareFree)> shareFree{"ZORVShareFree"};
  PlatformHook<decltype(ZORVShareSnapList)> list{"ZORVShareSnapList"};
  PlatformHook<decltype(ZORVShareSnapGetOrCreateSnapDir)> directory{
      "ZORVShareSnapGetOrCreateSnapDir"};
  PlatformHook<decltype(ZORVShareSnapSelectorAdd)> add{"ZORVShareSnapSelectorAdd"};
  PlatformHook<decltype(ZORVShareSnapEnumFree)> selectorsFree{"ZORVShareSnapEnumFree"};
  SzList paths = ListOf({});
  std::vector<std::string> arguments;
  bool selectedByTime = false;
  bool hadSelectors = false;
  bool freedRight = false;
  int dirSize = 0;
  int dirFlags = -1;
  int dirResult = 1;
};

}  // namespace

TEST_F(UtilsShareInfoGet, NullArgumentsFail) {
  EXPECT_EQ(-1, Utils::ShareInfoGet(nullptr, &share));
  EXPECT_EQ(-1, Utils::ShareInfoGet("photos", nullptr));
  EXPECT_EQ(2, Logged(LOG_ERR, "Bad paramters for getting share info")) << log.Dump();
  EXPECT_EQ(0, get.Calls());
}

TEST_F(UtilsShareInfoGet, FirstCallThatSucceedsEnds) {
  static _tag_ZORVSHARE record;
  get.Replace([](const char*, _tag_ZORVSHARE** out) {
    *out = &record;
    return 0;
  });
  EXPECT_EQ(0, Utils::ShareInfoGet("photos", &share));
  EXPECT_EQ(&record, share);
  EXPECT_EQ(1, get.Calls());
  EXPECT_TRUE(pauses.empty());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsShareInfoGet, UnavailableIsTriedFifteenTimes) {
  get.AlwaysFails(0x0400);
  EXPECT_EQ(-1, Utils::ShareInfoGet("photos", &share));
  EXPECT_EQ(15, get.Calls());
  EXPECT_EQ(15u, pauses.size());
  for (const unsigned int seconds : pauses) EXPECT_LE(seconds, 4u);
  EXPECT_EQ(13u, log.Lines().size()) << log.Dump();
  for (int attempt = 2; attempt <= 14; ++attempt)
    EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to get the share (photos), re-try (" +
                                       std::to_string(attempt) + ")" + HookTail(0x0400)));
}

TEST_F(UtilsShareInfoGet, PausesAreZeroToFourSeconds) {
  get.AlwaysFails(0x0400);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(-1, Utils::ShareInfoGet("photos", &share));
  // 150 of five values: one that never comes would be a chance of 1 in 10^14.
  for (unsigned int seconds = 0; seconds <= 4; ++seconds)
    EXPECT_NE(0, std::count(pauses.begin(), pauses.end(), seconds)) << seconds;
}

TEST_F(UtilsShareInfoGet, FirstTwoRetriesAreSilent) {
  get.Replace([this](const char*, _tag_ZORVSHARE**) {
    if (get.Calls() == 3) return 0;
    PLATCErrSetEx(0x0400, "tests/hook", 1);
    return -1;
  });
  EXPECT_EQ(0, Utils::ShareInfoGet("photos", &share));
  EXPECT_EQ(3, get.Calls());
  EXPECT_EQ(2u, pauses.size());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsShareInfoGet, TheFifteenthCallMaySucceed) {
  get.Replace([this](const char*, _tag_ZORVSHARE**) {
    if (get.Calls() == 15) return 0;
    PLATCErrSetEx(0x0400, "tests/hook", 1);
    return -1;
  });
  EXPECT_EQ(0, Utils::ShareInfoGet("photos", &share));
  EXPECT_EQ(12u, log.Lines().size()) << log.Dump();
}

TEST_F(UtilsShareInfoGet, AnyOtherErrorIsFinal) {
  get.AlwaysFails(0x1400);
  EXPECT_EQ(-1, Utils::ShareInfoGet("photos", &share));
  EXPECT_EQ(1, get.Calls());
  EXPECT_TRUE(pauses.empty());
  EXPECT_EQ(1, Logged(LOG_ERR, "ZORVShareGet failed. share (photos)" + HookTail(0x1400)))
      << log.Dump();
}

TEST_F(UtilsShareInfoGet, AnotherErrorAfterARetryIsFinal) {
  get.Replace([this](const char*, _tag_ZORVSHARE**) {
    PLATCErrSetEx(get.Calls() == 1 ? 0x0400 : 0x2A00, "tests/hook", 1);
    return -1;
  });
  EXPECT_EQ(-1, Utils::ShareInfoGet("photos", &share));
  EXPECT_EQ(2, get.Calls());
  EXPECT_EQ(1, Logged(LOG_ERR, "ZORVShareGet failed. share (photos)" + HookTail(0x2A00)));
}

TEST_F(UtilsSameVolumeCheck, OnePathGivesItsVolume) {
  EXPECT_EQ(0, Check({"/volume2/photos"}));
  EXPECT_EQ(2, volume);
}

TEST_F(UtilsSameVolumeCheck, SeveralPathsOfOneVolume) {
  EXPECT_EQ(0, Check({"/volume2/a", "/volume2/b", "/volume2/c"}));
  EXPECT_EQ(2, volume);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsSameVolumeCheck, DifferentVolumesEndAtOnce) {
  EXPECT_EQ(1, Check({"/volume1/a", "/volume2/b", "elsewhere"}));
  EXPECT_EQ(77, volume);
  EXPECT_EQ(2, parse.Calls());
}

TEST_F(UtilsSameVolumeCheck, EmptyListIsNoVolume) {
  EXPECT_EQ(0, Check({}));
  EXPECT_EQ(-1, volume);
}

TEST_F(UtilsSameVolumeCheck, NullPointerIsInvalidAndLogged) {
  EXPECT_EQ(-1, Utils::SameVolumeCheck(nullptr, volume));
  EXPECT_EQ(77, volume);
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, Logged(LOG_ERR, "Invaild Argument (__null != ppListPath)=[0]\n")) << log.Dump();
}

TEST_F(UtilsSameVolumeCheck, NullListIsInvalidInSilence) {
  PLATSZLIST* none = nullptr;
  EXPECT_EQ(-1, Utils::SameVolumeCheck(&none, volume));
  EXPECT_EQ(77, volume);
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsSameVolumeCheck, NullEntryIsInvalidInSilence) {
  PlatformHook<decltype(PLATCSzListGet)> entry("PLATCSzListGet");
  entry.FailsOnCall(2);
  EXPECT_EQ(-1, Check({"/volume1/a", "/volume1/b"}));
  EXPECT_EQ(77, volume);
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsSameVolumeCheck, APathOnNoVolumeFails) {
  EXPECT_EQ(-1, Check({"/volume1/a", "/home/b"}));
  EXPECT_EQ(77, volume);
  EXPECT_EQ(0xBE00u, PLATCErrGet());
  EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
  EXPECT_EQ(1, Logged(LOG_ERR, "Fail to parse volume path from [/home/b]" + HookTail(0x1111)))
      << log.Dump();
}

TEST_F(UtilsSameVolumeCheck, AVolumeWithoutRecordFails) {
  lost = 1;
  EXPECT_EQ(-1, Check({"/volume1/a"}));
  EXPECT_EQ(77, volume);
  EXPECT_EQ(0x2222u, PLATCErrGet());
  EXPECT_EQ(
      1, Logged(LOG_ERR, "Fail to get mount volume info of path [/volume1/a]." + HookTail(0x2222)))
      << log.Dump();
}

TEST_F(UtilsSameVolumeCheck, AVolumeOfAnotherKindFails) {
  otherKind = 1;
  EXPECT_EQ(-1, Check({"/volume1/a"}));
  EXPECT_EQ(77, volume);
  EXPECT_EQ(0xD900u, PLATCErrGet());
  EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsShareSnapListGet, WithoutAFilterListsAll) {
  EXPECT_EQ(0, Get());
  ExpectAllSnapshots();
  EXPECT_EQ(4096, dirSize);
  EXPECT_EQ(0, dirFlags);
  EXPECT_EQ(1, shareFree.Calls());
  EXPECT_TRUE(freedRight);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsShareSnapListGet, EmptyTimeListsAll) {
  EXPECT_EQ(0, Get(TimeFilter(Array({}))));
  ExpectAllSnapshots();
}

TEST_F(UtilsShareSnapListGet, TimeThatIsNoArrayIsIgnored) {
  for (const Json::Value& time :
       {Json::Value(), Json::Value(7), Json::Value("=GMT-2024.03.05-12.00.00"), Json::Value(true),
        Json::Value(Json::objectValue)}) {
    SCOPED_TRACE(time.toStyledString());
    paths = ListOf({});
    EXPECT_EQ(0, Get(TimeFilter(time)));
    ExpectAllSnapshots();
  }
}

TEST_F(UtilsShareSnapListGet, AFilterThatIsNoObjectIsIgnored) {
  for (const Json::Value& filter :
       {Array({"time"}), Json::Value(7), Json::Value("time"), Json::Value(true)}) {
    SCOPED_TRACE(filter.toStyledString());
    paths = ListOf({});
    EXPECT_EQ(0, Get(filter));
    ExpectAllSnapshots();
  }
}

TEST_F(UtilsShareSnapListGet, OneSelectorForEachElementInOrder) {
  EXPECT_EQ(0, Get(TimeFilter(Array({">=GMT-2024.03.05-12.00.00", "<=GMT-2024.03.06-12.00.00"}))));
  EXPECT_EQ((std::vector<std::string>{">=GMT-2024.03.05-12.00.00", "<=GMT-2024.03.06-12.00.00"}),
            arguments);
  EXPECT_TRUE(selectedByTime);
  EXPECT_TRUE(hadSelectors);
  EXPECT_EQ(1, selectorsFree.Calls());
}

TEST_F(UtilsShareSnapListGet, NoListFails) {
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.AlwaysFails(0x2A00);
  EXPECT_EQ(-1, Get());
  EXPECT_EQ(0, get.Calls());
  EXPECT_EQ(1, Logged(LOG_ERR, "PLATCSzListAlloc failed. " + HookTail(0x2A00))) << log.Dump();
}

TEST_F(UtilsShareSnapListGet, UnknownShareFails) {
  EXPECT_EQ(-1, Get({}, "music"));
  EXPECT_EQ(0, list.Calls());
  EXPECT_EQ(1, Logged(LOG_ERR, "ZORVShareGet failed. share (music)" + HookTail(0x1400)));
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to get share (music)" + HookTail(0x1400))) << log.Dump();
}

TEST_F(UtilsShareSnapListGet, RefusedSelectorFails) {
  EXPECT_EQ(-1, Get(TimeFilter(Array({">=GMT-2024.03.05-12.00.00", "yesterday"}))));
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to add selector (yesterday)" + Tail())) << log.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(0, list.Calls());
  EXPECT_EQ(1, selectorsFree.Calls());
  ExpectNothingLeft();
}

TEST_F(UtilsShareSnapListGet, ASelectorThatIsNoTextIsRefused) {
  const struct {
    Json::Value element;
    const char* text;
  } kCases[] = {
      {7, "7"},
      {Json::Value(), "null"},
      {true, "true"},
      {Array({"=x"}), R"(["=x"])"},
      {Json::Value(Json::objectValue), "{}"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    log.Clear();
    EXPECT_EQ(-1, Get(TimeFilter(Array({c.element}))));
    EXPECT_EQ(0x0D00u, PLATCErrGet());
    EXPECT_EQ(1, Logged(LOG_ERR, std::string("Failed to add selector (") + c.text + ")" + Tail()))
        << log.Dump();
    EXPECT_EQ(0, paths->count);
  }
  EXPECT_EQ(0, add.Calls());
  EXPECT_EQ(0, list.Calls());
  EXPECT_EQ(static_cast<int>(std::size(kCases)), shareFree.Calls());
}

TEST_F(UtilsShareSnapListGet, FailedListingFails) {
  list.AlwaysFails(0x2A00);
  EXPECT_EQ(-1, Get(TimeFilter(Array({"=GMT-2024.03.05-12.00.00"}))));
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to list share(photos) snapshots " + HookTail(0x2A00)))
      << log.Dump();
  EXPECT_EQ(0, directory.Calls());
  EXPECT_EQ(1, selectorsFree.Calls());
  ExpectNothingLeft();
}

TEST_F(UtilsShareSnapListGet, OnlyOneMeansADirectory) {
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  for (const int result : {0, -1, 2}) {
    SCOPED_TRACE(result);
    log.Clear();
    dirResult = result;
    EXPECT_EQ(-1, Get());
    EXPECT_EQ(0, paths->count);
    EXPECT_EQ(1, Logged(LOG_ERR,
                        "Failed to get snapshot directory, share: photos "
                        "[0x1234 tests/unit:7]"))
        << log.Dump();
  }
  EXPECT_EQ(3, shareFree.Calls());
}

TEST_F(UtilsShareSnapListGet, FailedPushFails) {
  PlatformHook<decltype(PLATCSzListPush)> push("PLATCSzListPush");
  push.FailsOnCall(4, 0x2A00);  // the hooks push two names first
  EXPECT_EQ(-1, Get());
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to push [/volume1/photos/.snapshots/a] to the list" +
                                   HookTail(0x2A00)))
      << log.Dump();
  EXPECT_EQ(1, shareFree.Calls());
}

TEST_F(UtilsShareSnapListGet, NoMemoryForALogLineIsAFailure) {
  const Json::Value filter = TimeFilter(Array({Array({std::string(2 << 20, 'x')})}));
  int result = 0;
  {
    const ScarceMemory scarce(1 << 20);
    result = Get(filter);
  }
  EXPECT_EQ(-1, result);
  ExpectNothingLeft();
}

TEST_F(UtilsShareSnapListGet, AppendsToTheCallersList) {
  paths = ListOf({"/first"});
  EXPECT_EQ(0, Get());
  EXPECT_EQ(3, paths->count);
  EXPECT_STREQ("/first", paths->items[0]);
}
