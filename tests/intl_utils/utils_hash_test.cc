// HashToJson: platform hashes as members of a JSON object.
#include <memory>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::Utils;

namespace {

class UtilsHashToJson : public UtilsTest {
 protected:
  void TearDown() override { PLATCSzHashFree(hash); }

  void Set(const char* key, const char* text) {
    ASSERT_GE(PLATCSzHashSetValue(&hash, key, text), 0);
  }

  PLATSZHASH* hash = PLATCSzHashAlloc(16);
  Json::Value value;
};

}  // namespace

TEST_F(UtilsHashToJson, EmptyHashLeavesTheValue) {
  EXPECT_TRUE(Utils::HashToJson(hash, value));
  EXPECT_TRUE(value.isNull());
  value["a"] = 1;
  EXPECT_TRUE(Utils::HashToJson(hash, value));
  EXPECT_EQ(1u, value.size());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsHashToJson, ValuesBecomeStrings) {
  Set("name", "photos");
  Set("count", "12");
  Set("empty", "");
  EXPECT_TRUE(Utils::HashToJson(hash, value));
  EXPECT_EQ(3u, value.size());
  EXPECT_EQ(Json::Value("photos"), value["name"]);
  EXPECT_EQ(Json::Value("12"), value["count"]);
  EXPECT_EQ(Json::Value(""), value["empty"]);
}

TEST_F(UtilsHashToJson, OverwritesItsKeysAndKeepsOthers) {
  value["name"] = 7;
  value["other"] = true;
  Set("name", "photos");
  EXPECT_TRUE(Utils::HashToJson(hash, value));
  EXPECT_EQ(Json::Value("photos"), value["name"]);
  EXPECT_EQ(Json::Value(true), value["other"]);
  EXPECT_EQ(2u, value.size());
}

TEST_F(UtilsHashToJson, KeysWithoutAValueAreLeftOut) {
  value["gone"] = "kept";
  Set("gone", nullptr);
  Set("name", "photos");
  EXPECT_TRUE(Utils::HashToJson(hash, value));
  EXPECT_EQ(Json::Value("kept"), value["gone"]);
  EXPECT_EQ(Json::Value("photos"), value["name"]);
}

TEST_F(UtilsHashToJson, KeysThatCannotBeReadAreLeftOut) {
  Set("name", "photos");
  PlatformHook<decltype(PLATCSzListGet)> entry("PLATCSzListGet");
  entry.AlwaysFails(0x0D00);
  EXPECT_TRUE(Utils::HashToJson(hash, value));
  EXPECT_FALSE(value.isMember("name"));
}

TEST_F(UtilsHashToJson, NoListIsLoggedAndStillTrue) {
  Set("name", "photos");
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  int capacity = 0;
  alloc.Replace([&](int asked) -> PLATSZLIST* {
    capacity = asked;
    PLATCErrSetEx(0x2A00, "tests/hook", 1);
    return nullptr;
  });
  EXPECT_TRUE(Utils::HashToJson(hash, value));
  EXPECT_TRUE(value.isNull());
  EXPECT_EQ(1024, capacity);
  EXPECT_EQ(1, Logged(LOG_ERR, "PLATCSzListAlloc failed. " + HookTail(0x2A00))) << log.Dump();
}

TEST_F(UtilsHashToJson, KeysThatCannotBeListedAreLoggedAndStillTrue) {
  Set("name", "photos");
  PlatformHook<decltype(PLATCSzHashEnumKey)> enumerate("PLATCSzHashEnumKey");
  enumerate.AlwaysFails(0x2A00);
  EXPECT_TRUE(Utils::HashToJson(hash, value));
  EXPECT_TRUE(value.isNull());
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to enum hash key")) << log.Dump();
}

TEST_F(UtilsHashToJson, NullHashIsLoggedAndStillTrue) {
  EXPECT_TRUE(Utils::HashToJson(nullptr, value));
  EXPECT_TRUE(value.isNull());
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to enum hash key")) << log.Dump();
}

TEST_F(UtilsHashToJson, AValueThatHoldsNoMembersStaysAndIsLogged) {
  Set("name", "photos");
  for (const Json::Value& wrong :
       {Json::Value(7), Json::Value("x"), Json::Value(true), Json::Value(Json::arrayValue)}) {
    log.Clear();
    value = wrong;
    EXPECT_TRUE(Utils::HashToJson(hash, value));
    EXPECT_EQ(wrong, value);
    EXPECT_EQ(1, Logged(LOG_ERR, "Invaild Argument (value.isObject())=[0]\n")) << log.Dump();
  }
}
