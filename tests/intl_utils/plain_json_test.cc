// Look-ups in a text of the plain form give what the JSON library gives, or say that it is not
// plain.
#include "intl_utils/plain_json.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "tests/support/command.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;

constexpr char kFile[] = "/tmp/plain.json";

bool All(std::string_view, std::string_view) { return true; }

// The whole document as every file is read. False: refused.
bool ReadByLibrary(const std::string& text, Json::Value& out) {
  std::istringstream in(text);
  Json::Reader reader;
  return reader.parse(in, out, false);
}

Json::Value ByLibrary(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(ReadByLibrary(text, value)) << text;
  return value;
}

// A map of two shares as the library writes it.
const std::string kMap =
    R"({"docs":{"snap_list":null,"task_id":"a-1","time":1700000000,"volume_id":-2},)"
    R"("photos":{"other":{"x":{},"y":true,"z":false},"snap_list":{"GMT":"257"},"task_id":"b-2"}})";

}  // namespace

TEST(PlainJsonParse, AllMembersAreTheLibrarysDocument) {
  Json::Value out;
  ASSERT_TRUE(ParsePlainMembers(kMap, All, out));
  EXPECT_EQ(ByLibrary(kMap), out);
}

TEST(PlainJsonParse, OnlyWantedMembersAreRead) {
  Json::Value out("old");
  const MemberFilter photos = [](std::string_view name, std::string_view) {
    return name == "photos";
  };
  ASSERT_TRUE(ParsePlainMembers(kMap, photos, out));
  EXPECT_EQ(1u, out.size());
  EXPECT_EQ(ByLibrary(kMap)["photos"], out["photos"]);
}

TEST(PlainJsonParse, NothingWantedIsAnEmptyObject) {
  Json::Value out("old");
  ASSERT_TRUE(ParsePlainMembers(
      kMap, [](std::string_view, std::string_view) { return false; }, out));
  EXPECT_EQ(Json::Value(Json::objectValue), out);
}

TEST(PlainJsonParse, FilterSeesNamesInOrderAndTheTextOfValues) {
  std::string seen;
  const MemberFilter watch = [&seen](std::string_view name, std::string_view value) {
    seen += std::string(name) + "=" + std::string(value) + ";";
    return false;
  };
  Json::Value out;
  ASSERT_TRUE(ParsePlainMembers(R"({"":null,"a":{"b":"c,}"},"d":-12,"e":"f"})", watch, out));
  EXPECT_EQ(R"(=null;a={"b":"c,}"};d=-12;e="f";)", seen);
}

TEST(PlainJsonParse, WhatIsPlain) {
  const struct {
    const char* name;
    std::string text;
    bool plain;
  } kCases[] = {
      {"empty object", "{}", true},
      {"names of any bytes", "{\"a\tb\":1,\"\x80\":2}", true},
      {"sorted by bytes, not by letters", R"({"B":1,"a":2,"ab":3})", true},
      {"eighteen digits", R"({"a":123456789012345678})", true},
      {"nineteen digits", R"({"a":1234567890123456789})", false},
      {"empty text", "", false},
      {"null", "null", false},
      {"array", "[]", false},
      {"array inside", R"({"a":[]})", false},
      {"a blank", R"({"a": 1})", false},
      {"a line end behind", "{}\n", false},
      {"more behind", "{}{}", false},
      {"a mark before", "\xEF\xBB\xBF{}", false},
      {"the same name twice", R"({"a":1,"a":2})", false},
      {"names that are not sorted", R"({"b":1,"a":2})", false},
      {"not sorted further in", R"({"a":{"c":1,"b":2}})", false},
      {"an escape in a name", R"({"\u0061":1})", false},
      {"an escape in a string", R"({"a":"\n"})", false},
      {"a fraction", R"({"a":1.5})", false},
      {"an exponent", R"({"a":1e3})", false},
      {"a sign alone", R"({"a":-})", false},
      {"a word that is none", R"({"a":nul})", false},
      {"a comment", R"({"a":1/**/})", false},
      {"a comma too many", R"({"a":1,})", false},
      {"the byte at which streams are cut", "{\"a\":\"\xFF\"}", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Json::Value out("old");
    EXPECT_EQ(c.plain, ParsePlainMembers(c.text, All, out));
    EXPECT_EQ(c.plain ? ByLibrary(c.text) : Json::Value("old"), out);
  }
}

TEST(PlainJsonParse, DeepDocumentsAreNotPlain) {
  std::string text = "1";
  for (int level = 1; level <= 40; ++level) {
    SCOPED_TRACE(level);
    text = "{\"a\":" + text + "}";
    Json::Value out;
    EXPECT_EQ(level <= 16, ParsePlainMembers(text, All, out));
  }
}

TEST(PlainJsonParse, EveryBeginningOfATextIsNotPlain) {
  for (size_t length = 0; length < kMap.size(); ++length) {
    Json::Value out("old");
    EXPECT_FALSE(ParsePlainMembers(kMap.substr(0, length), All, out)) << length;
    EXPECT_EQ("old", out);
  }
}

// Whatever a damaged text is taken for, it is never something else than what the JSON library sees.
TEST(PlainJsonParse, AnyByteInAnyPlaceIsNotPlainOrReadAsTheLibraryDoes) {
  int plain = 0;
  for (size_t place = 0; place < kMap.size(); ++place)
    for (int byte = 0; byte < 256; ++byte) {
      std::string text = kMap;
      text[place] = static_cast<char>(byte);
      Json::Value out;
      if (!ParsePlainMembers(text, All, out)) continue;
      ++plain;
      Json::Value librarys;
      ASSERT_TRUE(ReadByLibrary(text, librarys)) << text;
      ASSERT_EQ(librarys, out) << text;
    }
  EXPECT_GT(plain, 1000);
}

TEST(PlainJsonRead, FileIsReadAsItsText) {
  WriteFile(kFile, kMap);
  Json::Value out;
  ASSERT_TRUE(ReadPlainMembers(kFile, All, out));
  EXPECT_EQ(ByLibrary(kMap), out);
}

TEST(PlainJsonRead, WhatCannotBeReadIsLeftToOthers) {
  Json::Value out("old");
  std::filesystem::remove_all(kFile);
  EXPECT_FALSE(ReadPlainMembers(kFile, All, out)) << "missing";
  std::filesystem::create_directory(kFile);
  EXPECT_FALSE(ReadPlainMembers(kFile, All, out)) << "directory";
  std::filesystem::remove_all(kFile);
  WriteFile(kFile, "");
  EXPECT_FALSE(ReadPlainMembers(kFile, All, out)) << "empty";
  EXPECT_EQ("old", out);
}

}  // namespace ZorvTest
