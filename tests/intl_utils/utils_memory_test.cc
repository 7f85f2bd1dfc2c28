// No operation lets an exception out, not even for want of memory.
#include <optional>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/scarce_memory.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::kLockDir;
using ZorvBtrfsUsage::SzList;
using ZorvBtrfsUsage::SzListRef;
using ZorvBtrfsUsage::Utils;

namespace {

class UtilsWithoutMemory : public UtilsTest {};

// What `operation` returns while nothing can be allocated by `new`.
template <typename Operation>
auto Starved(Operation operation) {
  const ScarceMemory nothing(0);
  return operation();
}

}  // namespace

TEST_F(UtilsWithoutMemory, LocksFail) {
  const std::string path = std::string(kLockDir) + "/some.lock";
  int fd = -1;
  EXPECT_FALSE(Starved([&] { return Utils::GeneralFileLock(path, true, fd); }));
  EXPECT_EQ(-1, fd);
}

TEST_F(UtilsWithoutMemory, JsonFilesFail) {
  const std::string path = At("record");
  WriteFile(path, "{\"a\":\"old\"}");
  const Json::Value written = "new";
  Json::Value read = "kept";
  EXPECT_FALSE(Starved([&] { return Utils::JsonToFile(written, path); }));
  EXPECT_FALSE(Starved([&] { return Utils::SetJsonAttrByPath(path.c_str(), written); }));
  EXPECT_FALSE(Starved([&] { return Utils::JsonFromFile(read, path); }));
  EXPECT_TRUE(Starved([&] { return Utils::GetJsonAttrByPath(path.c_str()); }).isNull());
  EXPECT_EQ("{\"a\":\"old\"}", ReadFile(path));
  EXPECT_EQ(std::vector<std::string>{"record"}, Entries());
}

TEST_F(UtilsWithoutMemory, HashesSucceedAsAlways) {
  PLATSZHASH* hash = PLATCSzHashAlloc(4);
  ASSERT_GE(PLATCSzHashSetValue(&hash, "name", "photos"), 0);
  Json::Value value;
  for (const size_t bytes : {0, 64}) {  // no list of keys; no member of the object
    SCOPED_TRACE(bytes);
    bool result = false;
    {
      const ScarceMemory scarce(bytes);
      result = Utils::HashToJson(hash, value);
    }
    EXPECT_TRUE(result);
    EXPECT_TRUE(value.empty());
  }
  PLATCSzHashFree(hash);
}

TEST_F(UtilsWithoutMemory, TextsFail) {
  std::string text;
  EXPECT_FALSE(Starved([&] { return Utils::Time_tToTimeString(0, text); }));
  EXPECT_FALSE(Starved([&] { return Utils::NowTimeStringGet(text); }));
  EXPECT_FALSE(Starved([&] { return Utils::UUIDGen(text); }));
  EXPECT_EQ("", text);
}

TEST_F(UtilsWithoutMemory, AUuidThatWasReadFails) {
  PlatformHook<decltype(PLATCPclose)> close("PLATCPclose");
  PlatformHook<decltype(PLATCStrTrimSpace)> trim("PLATCStrTrimSpace");
  std::optional<ScarceMemory> nothing;
  trim.Replace([&](char* text) {
    const int result = trim.Real(text);
    nothing.emplace(0);  // from here on
    return result;
  });
  std::string uuid;
  const bool made = Utils::UUIDGen(uuid);
  nothing.reset();
  EXPECT_FALSE(made);
  EXPECT_EQ("", uuid);
  EXPECT_EQ(2, close.Calls());
  EXPECT_EQ(0x2A00u, PLATCErrGet());
}

TEST_F(UtilsWithoutMemory, SearchFails) {
  WriteFile(At("a-file-name-that-is-longer-than-a-short-string"), "");
  const std::string prefix = "a";
  const std::string dir = kWorkDir;
  SzList files = ListOf({});
  EXPECT_FALSE(Starved([&] { return Utils::SearchTaskFile(prefix, dir, SzListRef(files)); }));
  EXPECT_EQ(0, files->count);
}

TEST_F(UtilsWithoutMemory, ReminderFails) {
  bool on = true;
  EXPECT_FALSE(Starved([&] { return Utils::ReminderStatusSet(false); }));
  EXPECT_FALSE(Starved([&] { return Utils::ReminderStatusGet(on); }));
  EXPECT_TRUE(on);
}
