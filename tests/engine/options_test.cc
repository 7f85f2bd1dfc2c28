// The command line of `subvolume size`, and which command lines are that.
#include "engine/options.h"

#include <gtest/gtest.h>

#include <sstream>

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
      {"nothing said", {"/a"}, Method::kAuto, false},
      {"next word", {"--method", "walk", "/a"}, Method::kWalk, false},
      {"same word", {"/a", "--method=walk"}, Method::kWalk, false},
      {"cheaper way", {"--method", "auto", "/a"}, Method::kAuto, false},
      {"last one counts", {"--method=walk", "--method=scan", "/a"}, Method::kScan, false},
      {"verify", {"--verify", "/a"}, Method::kAuto, true},
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

TEST(OptionsParse, ReadsAPlan) {
  Options options;
  ASSERT_TRUE(ParseOptions({"--forecast", "258,00257,258", "-r", "/volume1"}, &options).Ok());
  EXPECT_EQ((std::vector<uint64_t>{258, 257, 258}), options.forecast);
  EXPECT_TRUE(options.arguments.empty());
  ASSERT_TRUE(ParseOptions({"-r", "/volume1", "--forecast=256", "300"}, &options).Ok());
  EXPECT_EQ(std::vector<uint64_t>{256}, options.forecast);
  EXPECT_EQ(Words{"300"}, options.arguments);
}

TEST(OptionsParse, ReadsHowTheTableIsSaid) {
  Options options;
  ASSERT_TRUE(ParseOptions({"/a"}, &options).Ok());
  EXPECT_FALSE(options.table || options.json);
  EXPECT_EQ(64u << 20, options.tableBytes);
  EXPECT_EQ(256u << 20, options.arrayBytes);
  ASSERT_TRUE(ParseOptions({"--table", "--format", "json", "--table-memory=1", "--memory",
                            "1048576", "-m", "/a"},
                           &options)
                  .Ok());
  EXPECT_TRUE(options.table && options.json && options.countMetadata);
  EXPECT_EQ(1u << 20, options.tableBytes);
  EXPECT_EQ(size_t{1} << 40, options.arrayBytes);
  ASSERT_TRUE(ParseOptions({"--format=json", "--format=text", "-vp", "/a"}, &options).Ok());
  EXPECT_FALSE(options.json);
}

TEST(OptionsParse, ReadsOtherQuestions) {
  const struct {
    const char* name;
    Words words;
    Question question;
  } kCases[] = {
      {"nothing said", {"/a"}, Question::kSizes},
      {"estimate", {"--estimate", "/a"}, Question::kEstimate},
      {"estimate without an ID", {"--estimate", "-r", "/a"}, Question::kEstimate},
      {"check", {"-r", "/a", "257", "--check"}, Question::kCheck},
      {"check without an ID", {"--check", "-r", "/a"}, Question::kCheck},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Options options;
    ASSERT_TRUE(ParseOptions(c.words, &options).Ok());
    EXPECT_EQ(c.question, options.question);
  }
}

TEST(OptionsParse, ReadsWhichFilesToList) {
  Options options;
  ASSERT_TRUE(ParseOptions({"/a"}, &options).Ok());
  EXPECT_EQ(0u, options.files.most);
  EXPECT_EQ(1u, options.files.depth);
  EXPECT_EQ("", options.holders);
  ASSERT_TRUE(ParseOptions({"--files", "10000", "--depth=0", "/a"}, &options).Ok());
  EXPECT_EQ(10000u, options.files.most);
  EXPECT_EQ(0u, options.files.depth);
  ASSERT_TRUE(ParseOptions({"--holders", "-odd\n", "/a", "/b"}, &options).Ok());
  EXPECT_EQ("-odd\n", options.holders);
}

TEST(OptionsParse, ReadsHowToRead) {
  Options options;
  ASSERT_TRUE(ParseOptions({"/a"}, &options).Ok());
  EXPECT_TRUE(options.ring);
  EXPECT_EQ(0u, options.threads);
  EXPECT_FALSE(options.stats);
  ASSERT_TRUE(ParseOptions({"--no-ring", "--threads=64", "--stats", "/a"}, &options).Ok());
  EXPECT_FALSE(options.ring);
  EXPECT_EQ(64u, options.threads);
  EXPECT_TRUE(options.stats);
}

// The text is what users copy from.
TEST(OptionsHelp, HasExamplesThatAreRead) {
  std::istringstream text(kHelpText);
  int examples = 0;
  for (std::string line; std::getline(text, line);) {
    if (line.rfind("  btrfs subvolume size ", 0) != 0) continue;
    ++examples;
    std::istringstream rest(line);
    Words words;
    for (std::string word; rest >> word;) words.push_back(word);
    words.erase(words.begin());
    ASSERT_TRUE(IsSizeCommand(words)) << line;
    Options options;
    EXPECT_EQ("", ParseOptions({words.begin() + 2, words.end()}, &options).Text()) << line;
  }
  EXPECT_GE(examples, 5);
}

TEST(OptionsHelp, NamesEveryOption) {
  const std::string text = kHelpText;
  for (const char* option : {"-v ",
                             "-p ",
                             "-m ",
                             "-r DIR",
                             "-h, --help",
                             "--version",
                             "--forecast ID,ID,...",
                             "--table ",
                             "--format json",
                             "--estimate",
                             "--check",
                             "--stats",
                             "--method M",
                             "--verify",
                             "--files N",
                             "--holders PATH",
                             "--table-memory MIB",
                             "--memory MIB",
                             "--threads N",
                             "--no-ring"})
    EXPECT_NE(std::string::npos, text.find(std::string("\n  ") + option)) << option;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 90u) << line;
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
      {{"--tables", "/a"}, "--tables is neither an option nor a subvolume" + see},
      {{"--table=5", "/a"}, "--table=5 is neither an option nor a subvolume" + see},
      {{"--method", "fast", "/a"}, "--method is auto, scan or walk" + see},
      {{"--method"}, "--method is auto, scan or walk" + see},
      {{"--method=", "/a"}, "--method is auto, scan or walk" + see},
      {{"--methodical", "/a"}, "--methodical is neither an option nor a subvolume" + see},
      {{"-", "/a"}, "- is neither an option nor a subvolume" + see},
      {{"-r", "/a", "-5"}, "-5 is neither an option nor a subvolume" + see},
      {{"/a", ""}, "an argument is empty" + see},
      {{"--forecast"}, "--forecast needs subvolume IDs with commas between them" + see},
      {{"--forecast=", "-r", "/a"},
       "--forecast needs subvolume IDs with commas between them" + see},
      {{"--forecast", "257", "--forecast", "258"}, "--forecast is given twice" + see},
      {{"--forecast", "257,", "-r", "/a"},
       "\"\" is not a subvolume ID: decimal digits are expected"},
      {{"--forecast", "257,-5", "-r", "/a"},
       "\"-5\" is not a subvolume ID: decimal digits are expected"},
      {{"--forecast", "257", "/a"}, "--forecast has subvolume IDs, so it needs -r DIR" + see},
      {{"--format", "xml", "/a"}, "--format is text or json" + see},
      {{"--format", "json", "-p", "/a"},
       "--format json is one document without lines; leave out -p and -v" + see},
      {{"-v", "--format=json", "/a"},
       "--format json is one document without lines; leave out -p and -v" + see},
      {{"--table-memory", "0", "/a"}, "--table-memory is a number of MiB from 1 to 1048576" + see},
      {{"--memory", "1048577", "/a"}, "--memory is a number of MiB from 1 to 1048576" + see},
      {{"--memory", "64M", "/a"}, "--memory is a number of MiB from 1 to 1048576" + see},
      {{"--memory"}, "--memory is a number of MiB from 1 to 1048576" + see},
      {{"--threads", "0", "/a"}, "--threads is a number from 1 to 64" + see},
      {{"--threads=65", "/a"}, "--threads is a number from 1 to 64" + see},
      {{"--files", "0", "/a"}, "--files is a number from 1 to 10000" + see},
      {{"--files=10001", "/a"}, "--files is a number from 1 to 10000" + see},
      {{"--files"}, "--files is a number from 1 to 10000" + see},
      {{"--depth", "1001", "/a"}, "--depth is a number from 0 to 1000" + see},
      {{"--depth=", "/a"}, "--depth is a number from 0 to 1000" + see},
      {{"--files=1", "/a", "/b"},
       "--files is about one subvolume, and goes with neither --table nor --forecast" + see},
      {{"--files=1", "--table", "/a"},
       "--files is about one subvolume, and goes with neither --table nor --forecast" + see},
      {{"--holders", "", "/a"}, "--holders needs a path" + see},
      {{"--holders"}, "--holders needs a path" + see},
      {{"--holders=x", "--table", "/a"},
       "--holders goes with neither --files, --table nor --forecast" + see},
      {{"--holders=x", "--files=1", "/a"},
       "--holders goes with neither --files, --table nor --forecast" + see},
      {{"--check", "--holders=x", "/a"},
       "--estimate and --check go with neither --table, --forecast, --files, --holders nor "
       "--format json" +
           see},
      {{"--estimate"}, "no subvolume is given" + see},
      {{"--check"}, "no subvolume is given" + see},
      {{"--check", "--estimate", "/a"},
       "--estimate and --check are asked one after the other" + see},
      {{"--check", "--table", "/a"},
       "--estimate and --check go with neither --table, --forecast, --files, --holders nor --format json" +
           see},
      {{"--estimate", "--forecast=256", "-r", "/a"},
       "--estimate and --check go with neither --table, --forecast, --files, --holders nor --format json" +
           see},
      {{"--estimate", "--format=json", "/a"},
       "--estimate and --check go with neither --table, --forecast, --files, --holders nor --format json" +
           see},
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
