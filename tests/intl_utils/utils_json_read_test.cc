// JsonFromFile and GetJsonAttrByPath: what is read, and what of files that somebody else wrote.
#include <json/reader.h>
#include <unistd.h>

#include <sstream>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/scarce_memory.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace std::string_literals;
using namespace ZorvTest;
using ZorvBtrfsUsage::Utils;

namespace {

class UtilsJsonFromFile : public UtilsTest {
 protected:
  // The line about a text that cannot be parsed.
  std::string ParseFailure(int error = 0) const {
    return "Some errors occurs when parseing input stream, path(" + path + "), errno(" +
           std::to_string(error) + ")";
  }

  const std::string path = At("record");
  Json::Value value;
};

class UtilsGetJsonAttrByPath : public UtilsJsonFromFile {};

const struct {
  const char* name;
  std::string text;
} kBroken[] = {
    {"empty", ""},
    {"white space only", " \n"},
    {"truncated in an object", "{\"a\":1,\"b\":"},
    {"truncated in an array", "[1,2"},
    {"truncated in a string", "{\"a\":\"x"},
    {"no JSON at all", "status ready"},
    {"a NUL byte", "\0"s},
    {"binary", "\xFF\xFE\x00\x01"s},
    {"unquoted key", "{a:1}"},
};

}  // namespace

TEST_F(UtilsJsonFromFile, ReadsWhatIsThere) {
  WriteFile(path, "{ \"a\" : [1, \"x\", true, null],\n  \"b\":{\"c\":2} }\n");
  ASSERT_TRUE(Utils::JsonFromFile(value, path));
  EXPECT_EQ(2u, value.size());
  EXPECT_EQ(4u, value["a"].size());
  EXPECT_EQ("x", value["a"][1].asString());
  EXPECT_EQ(2, value["b"]["c"].asInt());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsJsonFromFile, CommentsAreReadOverAndNotKept) {
  WriteFile(path, "// before\n{\"a\":1 /* behind */}");
  ASSERT_TRUE(Utils::JsonFromFile(value, path));
  EXPECT_EQ(1, value["a"].asInt());
  EXPECT_FALSE(value.hasComment(Json::commentBefore));
  EXPECT_FALSE(value["a"].hasComment(Json::commentAfterOnSameLine));
}

TEST_F(UtilsJsonFromFile, ReplacesWhatTheValueHeld) {
  WriteFile(path, "{\"a\":1}");
  value["old"] = 1;
  ASSERT_TRUE(Utils::JsonFromFile(value, path));
  EXPECT_EQ(std::vector<std::string>{"a"}, value.getMemberNames());
}

TEST_F(UtilsJsonFromFile, EmptyPathFailsInSilence) {
  value = "kept";
  EXPECT_FALSE(Utils::JsonFromFile(value, ""));
  EXPECT_EQ("kept", value.asString());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsJsonFromFile, MissingFileFails) {
  value = "kept";
  EXPECT_FALSE(Utils::JsonFromFile(value, path));
  EXPECT_EQ("kept", value.asString());
  EXPECT_EQ(1, Logged(LOG_DEBUG,
                      "Failed to open ifstream (" + path + "), errno(No such file or directory)"))
      << log.Dump();
}

TEST_F(UtilsJsonFromFile, UnreadableFileFails) {
  WriteFile(path, "{}");
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  EXPECT_EQ(
      0, InChild([&] { return setuid(1000) == 0 && !Utils::JsonFromFile(value, path) ? 0 : 1; }));
  EXPECT_EQ(1,
            Logged(LOG_DEBUG, "Failed to open ifstream (" + path + "), errno(Permission denied)"))
      << log.Dump();
}

TEST_F(UtilsJsonFromFile, InvalidJsonFails) {
  for (const auto& c : kBroken) {
    SCOPED_TRACE(c.name);
    log.Clear();
    WriteFile(path, c.text);
    errno = EXDEV;  // from something before, and none of this file's business
    EXPECT_FALSE(Utils::JsonFromFile(value, path));
    EXPECT_EQ(1, Logged(LOG_DEBUG, ParseFailure())) << log.Dump();
  }
}

TEST_F(UtilsJsonFromFile, ADirectoryFails) {
  std::filesystem::create_directory(path);
  EXPECT_FALSE(Utils::JsonFromFile(value, path));
  EXPECT_EQ(1, Logged(LOG_DEBUG, ParseFailure(EISDIR))) << log.Dump();
}

TEST_F(UtilsJsonFromFile, NestingThatIsTooDeepFails) {
  for (const char* open : {"[", "{\"a\":"}) {
    SCOPED_TRACE(open);
    log.Clear();
    std::string text;
    for (int i = 0; i < 2000; ++i) text += open;
    WriteFile(path, text);
    EXPECT_FALSE(Utils::JsonFromFile(value, path));
    EXPECT_EQ(1, Logged(LOG_DEBUG, ParseFailure())) << log.Dump();
  }
}

TEST_F(UtilsJsonFromFile, FiftyMegabytesOfOpenBracketsFail) {
  WriteFile(path, std::string(50 << 20, '['));
  EXPECT_FALSE(Utils::JsonFromFile(value, path));
  EXPECT_EQ(1, Logged(LOG_DEBUG, ParseFailure())) << log.Dump();
}

TEST_F(UtilsJsonFromFile, NoMemoryForTheDocumentIsAFailure) {
  WriteFile(path, "\"" + std::string(50 << 20, 'x') + "\"");
  {
    const ScarceMemory scarce(1 << 20);
    EXPECT_FALSE(Utils::JsonFromFile(value, path));
  }
  EXPECT_EQ(1, log.Count("Some errors occurs when parseing input stream, path(" + path + ")"));
}

TEST_F(UtilsGetJsonAttrByPath, ReturnsWhatWasRead) {
  WriteFile(path, "{\"a\":1}");
  EXPECT_EQ(1, Utils::GetJsonAttrByPath(path.c_str())["a"].asInt());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsGetJsonAttrByPath, AnyJsonValueWillDo) {
  const struct {
    const char* text;
    Json::Value value;
  } kCases[] = {
      {"[]", Json::Value(Json::arrayValue)}, {"7", 7}, {"\"x\"", "x"}, {"true", true}, {"null", {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    WriteFile(path, c.text);
    EXPECT_EQ(c.value, Utils::GetJsonAttrByPath(path.c_str()));
  }
}

TEST_F(UtilsGetJsonAttrByPath, MissingFileIsNull) {
  EXPECT_TRUE(Utils::GetJsonAttrByPath(path.c_str()).isNull());
  EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to load Json data from file, path: " + path))
      << log.Dump();
}

TEST_F(UtilsGetJsonAttrByPath, InvalidJsonIsWhateverTheReaderLeft) {
  for (const auto& c : kBroken) {
    SCOPED_TRACE(c.name);
    log.Clear();
    WriteFile(path, c.text);
    Json::Value left;
    std::istringstream in(c.text);
    ASSERT_FALSE(Json::Reader().parse(in, left, false));
    EXPECT_EQ(left, Utils::GetJsonAttrByPath(path.c_str()));
    EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to load Json data from file, path: " + path));
  }
}

TEST_F(UtilsGetJsonAttrByPath, ADirectoryIsNull) {
  std::filesystem::create_directory(path);
  EXPECT_TRUE(Utils::GetJsonAttrByPath(path.c_str()).isNull());
}

TEST_F(UtilsGetJsonAttrByPath, EmptyPathIsNull) {
  EXPECT_TRUE(Utils::GetJsonAttrByPath("").isNull());
  EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to load Json data from file, path: ")) << log.Dump();
}

TEST_F(UtilsGetJsonAttrByPath, NullPathIsNull) {
  EXPECT_TRUE(Utils::GetJsonAttrByPath(nullptr).isNull());
  EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to load Json data from file, path: (null)")) << log.Dump();
}
