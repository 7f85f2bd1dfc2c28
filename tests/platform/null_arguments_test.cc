// Null arguments: an error with code 0x0D00 everywhere, never a crash.
#include <gtest/gtest.h>
#include <zorvplatform/share.h>

#include "tests/platform/platform_error.h"

using namespace ZorvTest;

namespace {

int Selected(const char*, const char*) { return 1; }

// What the rows need of real arguments.
struct Given {
  PLATSZLIST* list = PLATCSzListAlloc(4);
  PLATSZLIST* noList = nullptr;
  const char* format = nullptr;
  PLATSZHASH* hash = PLATCSzHashAlloc(4);
  PLATSZHASH* noHash = nullptr;
  ZORVSHARE* share = nullptr;
  ZORVSHARESNAPINFO* snapInfo = nullptr;
  ZORVSHARESNAPSELECTOR* selectors = nullptr;
  char buffer[64] = "";
  char* noArguments[1] = {nullptr};
  char* arguments[2] = {const_cast<char*>("x"), nullptr};

  ~Given() {
    PLATCSzListFree(list);
    PLATCSzHashFree(hash);
    ZORVShareSnapEnumFree(selectors);
  }
};

struct Row {
  const char* name;
  bool (*refused)(Given& g);
};

// A share record is needed beside a null one; the platform looks at the null first.
ZORVSHARE* SomeShare() {
  static ZORVSHARE share = {nullptr};
  return &share;
}

const Row kRows[] = {
    {"PLATCSzListPush list", [](Given&) { return PLATCSzListPush(nullptr, "x") < 0; }},
    {"PLATCSzListPush list behind", [](Given& g) { return PLATCSzListPush(&g.noList, "x") < 0; }},
    {"PLATCSzListPush text", [](Given& g) { return PLATCSzListPush(&g.list, nullptr) < 0; }},
    {"PLATCSzListGet list", [](Given&) { return PLATCSzListGet(nullptr, 0) == nullptr; }},
    {"PLATCSzListRemoveAll list", [](Given&) { return PLATCSzListRemoveAll(nullptr), true; }},
    {"PLATCSzHashSetValue hash", [](Given&) { return PLATCSzHashSetValue(nullptr, "k", "v") < 0; }},
    {"PLATCSzHashSetValue hash behind",
     [](Given& g) { return PLATCSzHashSetValue(&g.noHash, "k", "v") < 0; }},
    {"PLATCSzHashSetValue key",
     [](Given& g) { return PLATCSzHashSetValue(&g.hash, nullptr, "v") < 0; }},
    {"PLATCSzHashGetValue hash",
     [](Given&) { return PLATCSzHashGetValue(nullptr, "k") == nullptr; }},
    {"PLATCSzHashGetValue key",
     [](Given& g) { return PLATCSzHashGetValue(g.hash, nullptr) == nullptr; }},
    {"PLATCSzHashEnumKey hash", [](Given& g) { return PLATCSzHashEnumKey(nullptr, &g.list) < 0; }},
    {"PLATCSzHashEnumKey keys", [](Given& g) { return PLATCSzHashEnumKey(g.hash, nullptr) < 0; }},
    {"PLATCSzHashEnumKey keys behind",
     [](Given& g) { return PLATCSzHashEnumKey(g.hash, &g.noList) < 0; }},
    {"PLATCFileExist path", [](Given&) { return PLATCFileExist(nullptr) < 0; }},
    {"PLATCFileCheckDir path", [](Given&) { return PLATCFileCheckDir(nullptr) < 0; }},
    {"PLATCFileEnumDir path",
     [](Given& g) { return PLATCFileEnumDir(nullptr, 0, &g.list, 128) < 0; }},
    {"PLATCFileEnumDir names", [](Given&) { return PLATCFileEnumDir("/", 0, nullptr, 128) < 0; }},
    {"PLATCFileEnumDir names behind",
     [](Given& g) { return PLATCFileEnumDir("/", 0, &g.noList, 128) < 0; }},
    {"PLATCPopen command", [](Given&) { return PLATCPopen(nullptr, "r") == nullptr; }},
    {"PLATCPopen mode", [](Given&) { return PLATCPopen("/bin/true", nullptr) == nullptr; }},
    {"PLATCPopenv path",
     [](Given& g) { return PLATCPopenv(nullptr, "r", g.arguments) == nullptr; }},
    {"PLATCPopenv mode",
     [](Given& g) { return PLATCPopenv("/bin/true", nullptr, g.arguments) == nullptr; }},
    {"PLATCPopenv argv", [](Given&) { return PLATCPopenv("/bin/true", "r", nullptr) == nullptr; }},
    {"PLATCPopenv argv[0]",
     [](Given& g) { return PLATCPopenv("/bin/true", "r", g.noArguments) == nullptr; }},
    {"PLATCPclose stream", [](Given&) { return PLATCPclose(nullptr) == -1; }},
    {"PLATCStrTrimSpace text", [](Given&) { return PLATCStrTrimSpace(nullptr) < 0; }},
    {"ZORVShareGet name", [](Given& g) { return ZORVShareGet(nullptr, &g.share) < 0; }},
    {"ZORVShareGet share", [](Given&) { return ZORVShareGet("photos", nullptr) < 0; }},
    {"ZORVShareEnum names", [](Given&) { return ZORVShareEnum(nullptr, 0x301) < 0; }},
    {"ZORVShareEnum names behind", [](Given& g) { return ZORVShareEnum(&g.noList, 0x301) < 0; }},
    {"ZORVShareSurvey names",
     [](Given& g) { return ZORVShareSurvey(nullptr, &g.list, &g.list) < 0; }},
    {"ZORVShareSurvey missing",
     [](Given& g) { return ZORVShareSurvey(&g.list, nullptr, &g.list) < 0; }},
    {"ZORVShareSurvey hidden",
     [](Given& g) { return ZORVShareSurvey(&g.list, &g.list, nullptr) < 0; }},
    {"ZORVShareSurvey list behind",
     [](Given& g) { return ZORVShareSurvey(&g.list, &g.noList, &g.list) < 0; }},
    {"ZORVShareSnapUnfit share",
     [](Given& g) { return ZORVShareSnapUnfit(nullptr, &g.format) < 0; }},
    {"ZORVShareSnapUnfit format",
     [](Given&) { return ZORVShareSnapUnfit(SomeShare(), nullptr) < 0; }},
    {"ZORVShareInfoGet share",
     [](Given&) {
       ZORVSHAREINFO info;
       return ZORVShareInfoGet(nullptr, &info) < 0;
     }},
    {"ZORVShareInfoGet info", [](Given&) { return ZORVShareInfoGet(SomeShare(), nullptr) < 0; }},
    {"VolumePathParseEx path",
     [](Given& g) { return VolumePathParseEx(nullptr, g.buffer, sizeof g.buffer) < 0; }},
    {"VolumePathParseEx volumePath",
     [](Given&) { return VolumePathParseEx("/volume1", nullptr, 64) < 0; }},
    {"ZORVMountVolInfoGet volumePath",
     [](Given&) {
       ZORVMOUNTVOLINFO info;
       return ZORVMountVolInfoGet(nullptr, &info) < 0;
     }},
    {"ZORVMountVolInfoGet info",
     [](Given&) { return ZORVMountVolInfoGet("/volume1", nullptr) < 0; }},
    {"ZORVShareSnapTimeSelector snapName",
     [](Given&) { return ZORVShareSnapTimeSelector(nullptr, "=GMT-2024.03.05-09.04.09") < 0; }},
    {"ZORVShareSnapTimeSelector argument",
     [](Given&) { return ZORVShareSnapTimeSelector("GMT-2024.03.05-09.04.09", nullptr) < 0; }},
    {"ZORVShareSnapSelectorAdd selectors",
     [](Given&) { return ZORVShareSnapSelectorAdd(nullptr, Selected, "") < 0; }},
    {"ZORVShareSnapSelectorAdd fn",
     [](Given& g) { return ZORVShareSnapSelectorAdd(&g.selectors, nullptr, "") < 0; }},
    {"ZORVShareSnapSelectorAdd argument",
     [](Given& g) { return ZORVShareSnapSelectorAdd(&g.selectors, Selected, nullptr) < 0; }},
    {"ZORVShareSnapList share",
     [](Given& g) { return ZORVShareSnapList(nullptr, &g.list, nullptr) < 0; }},
    {"ZORVShareSnapList names",
     [](Given&) { return ZORVShareSnapList(SomeShare(), nullptr, nullptr) < 0; }},
    {"ZORVShareSnapList names behind",
     [](Given& g) { return ZORVShareSnapList(SomeShare(), &g.noList, nullptr) < 0; }},
    {"ZORVShareSnapGetOrCreateSnapDir share",
     [](Given& g) {
       return ZORVShareSnapGetOrCreateSnapDir(nullptr, g.buffer, sizeof g.buffer, 0) < 0;
     }},
    {"ZORVShareSnapGetOrCreateSnapDir dir",
     [](Given&) { return ZORVShareSnapGetOrCreateSnapDir(SomeShare(), nullptr, 64, 0) < 0; }},
    {"ZORVShareSnapInfoGet share",
     [](Given& g) { return ZORVShareSnapInfoGet(nullptr, "x", &g.snapInfo) < 0; }},
    {"ZORVShareSnapInfoGet snapName",
     [](Given& g) { return ZORVShareSnapInfoGet(SomeShare(), nullptr, &g.snapInfo) < 0; }},
    {"ZORVShareSnapInfoGet info",
     [](Given&) { return ZORVShareSnapInfoGet(SomeShare(), "x", nullptr) < 0; }},
    {"ZORVShareSnapTimeGet snapName",
     [](Given&) {
       time_t time;
       return ZORVShareSnapTimeGet(nullptr, &time) < 0;
     }},
    {"ZORVShareSnapTimeGet time",
     [](Given&) { return ZORVShareSnapTimeGet("GMT-2024.03.05-09.04.09", nullptr) < 0; }},
    {"ZORVFileCopy source", [](Given&) { return ZORVFileCopy(nullptr, "/tmp/x", 0) < 0; }},
    {"ZORVFileCopy destination",
     [](Given&) { return ZORVFileCopy("/etc/passwd", nullptr, 0) < 0; }},
};

}  // namespace

TEST(NullArguments, AreRefusedEverywhere) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    Given given;
    ClearError();
    EXPECT_TRUE(row.refused(given));
    EXPECT_TRUE(FailedWith(0x0D00));
    EXPECT_EQ(0, given.list->count);
    EXPECT_EQ(nullptr, given.share);
    EXPECT_EQ(nullptr, given.snapInfo);
    EXPECT_EQ(nullptr, given.selectors);
  }
}

TEST(NullArguments, AreAllowedWhereThingsAreFreed) {
  ClearError();
  PLATCSzListFree(nullptr);
  PLATCSzHashFree(nullptr);
  ZORVShareFree(nullptr);
  ZORVShareSnapEnumFree(nullptr);
  ZORVShareSnapInfoFree(nullptr);
  EXPECT_EQ(0u, PLATCErrGet());
}
