// The command line of `subvolume size`, and which command lines are that.
#include "engine/options.h"

#include <gtest/gtest.h>

using namespace ZorvEngine;
using Words = std::vector<std::string>;

TEST(OptionsIsSizeCommand, KnowsUniquePrefixesOnly) {
  const struct {
    Words words;
    bool is;
  } kCases[] = {
      {{"subvolume", "size"}, true},
      {{"subvolume", "size", "-v", "/x"}, true},
      {{"sub", "siz"}, true},
      {{"su", "si"}, true},
      {{"s", "size"}, false},
      {{"su", "s"}, false},
      {{"subvolume", ""}, false},
      {{"", "size"}, false},
      {{"subvolumes", "size"}, false},
      {{"subvolume", "sizes"}, false},
      {{"subvolume", "show"}, false},
      {{"subvolume"}, false},
      {{}, false},
      {{"--help"}, false},
      {{"filesystem", "size"}, false},
      {{"-v", "subvolume", "size"}, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.words));
    EXPECT_EQ(c.is, IsSizeCommand(c.words));
  }
}

TEST(OptionsParse, ReadsBundledOptions) {
  Options options;
  ASSERT_TRUE(ParseOptions({"-vpm", "-r", "/volume1", "257", "258"}, &options).Ok());
  EXPECT_TRUE(options.eachSubvolume && options.progress && options.countMetadata && options.byId);
  EXPECT_EQ("/volume1", options.directory);
  EXPECT_EQ((Words{"257", "258"}), options.arguments);
}

TEST(OptionsParse, ReadsSeparateOptionsAndPaths) {
  Options options;
  ASSERT_TRUE(ParseOptions({"-v", "/a", "-m", "/b"}, &options).Ok());
  EXPECT_TRUE(options.eachSubvolume && options.countMetadata);
  EXPECT_FALSE(options.progress || options.byId || options.help || options.version);
  EXPECT_EQ((Words{"/a", "/b"}), options.arguments);
}

TEST(OptionsParse, TakesTheDirectoryFromTheSameWord) {
  Options options;
  ASSERT_TRUE(ParseOptions({"-mr/volume2", "5"}, &options).Ok());
  EXPECT_EQ("/volume2", options.directory);
  EXPECT_TRUE(options.countMetadata);
}

TEST(OptionsParse, EndsOptionsAtTwoDashes) {
  Options options;
  ASSERT_TRUE(ParseOptions({"-v", "--", "-m", "--help"}, &options).Ok());
  EXPECT_EQ((Words{"-m", "--help"}), options.arguments);
  EXPECT_FALSE(options.countMetadata || options.help);
}

TEST(OptionsParse, NeedsNoArgumentForHelpAndVersion) {
  Options options;
  ASSERT_TRUE(ParseOptions({"--help"}, &options).Ok());
  EXPECT_TRUE(options.help);
  ASSERT_TRUE(ParseOptions({"-h"}, &options).Ok());
  EXPECT_TRUE(options.help);
  ASSERT_TRUE(ParseOptions({"--version"}, &options).Ok());
  EXPECT_TRUE(options.version);
}

TEST(OptionsParse, ReadsTheWayOfCounting) {
  const struct {
    const char* name;
    std::vector<std::string> words;
    Method method;
    bool verify;
  } kCases[] = {
      {"nothing said", {"/a"}, Method::kScan, false},
      {"next word", {"--method", "walk", "/a"}, Method::kWalk, false},
      {"same word", {"/a", "--method=walk"}, Method::kWalk, false},
      {"cheaper way", {"--method", "auto", "/a"}, Method::kAuto, false},
      {"last one counts", {"--method=walk", "--method=scan", "/a"}, Method::kScan, false},
      {"verify", {"--verify", "/a"}, Method::kScan, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Options options;
    ASSERT_TRUE(ParseOptions(c.words, &options).Ok());
    EXPECT_EQ(c.method, options.method);
    EXPECT_EQ(c.verify, options.verify);
    EXPECT_EQ(std::vector<std::string>{"/a"}, options.arguments);
  }
}

TEST(OptionsParse, SaysWhatIsWrong) {
  const std::string see = "; see btrfs subvolume size --help";
  const struct {
    Words words;
    std::string text;
  } kCases[] = {
      {{}, "no subvolume is given" + see},
      {{"-vpm"}, "no subvolume is given" + see},
      {{"--"}, "no subvolume is given" + see},
      {{"-r"}, "-r needs a directory" + see},
      {{"-r", "", "5"}, "-r needs a directory" + see},
      {{"-r", "/a", "-r", "/b", "5"}, "-r is given twice" + see},
      {{"-x", "/a"}, "-x is neither an option nor a subvolume" + see},
      {{"-vx", "/a"}, "-vx is neither an option nor a subvolume" + see},
      {{"--table", "/a"}, "--table is neither an option nor a subvolume" + see},
      {{"--method", "fast", "/a"}, "--method is auto, scan or walk" + see},
      {{"--method"}, "--method is auto, scan or walk" + see},
      {{"--method=", "/a"}, "--method is auto, scan or walk" + see},
      {{"--methodical", "/a"}, "--methodical is neither an option nor a subvolume" + see},
      {{"-", "/a"}, "- is neither an option nor a subvolume" + see},
      {{"-r", "/a", "-5"}, "-5 is neither an option nor a subvolume" + see},
      {{"/a", ""}, "an argument is empty" + see},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.words));
    Options options;
    EXPECT_EQ(c.text, ParseOptions(c.words, &options).Text());
    EXPECT_TRUE(options.arguments.empty());
  }
}

TEST(OptionsParseSubvolumeId, ReadsDecimalNumbers) {
  const struct {
    const char* text;
    uint64_t id;
  } kCases[] = {{"5", 5},
                {"00257", 257},
                {"18446744073709551615", UINT64_MAX},
                {"000000000000000000000000000000256", 256}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    uint64_t id = 0;
    ASSERT_TRUE(ParseSubvolumeId(c.text, &id).Ok());
    EXPECT_EQ(c.id, id);
  }
}

TEST(OptionsParseSubvolumeId, RefusesAnythingElse) {
  for (const char* text : {"", "-5", "+5", "0x101", "257 ", " 257", "2.5", "abc"}) {
    SCOPED_TRACE(text);
    uint64_t id = 99;
    EXPECT_EQ(std::string("\"") + text + "\" is not a subvolume ID: decimal digits are expected",
              ParseSubvolumeId(text, &id).Text());
    EXPECT_EQ(99u, id);
  }
  uint64_t id = 99;
  for (const char* text : {"18446744073709551616", "99999999999999999999"})
    EXPECT_EQ(std::string(text) + " is too large for a subvolume ID",
              ParseSubvolumeId(text, &id).Text());
}
