// Which snapshots a calculation measures, and what it prints of them.
#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

class CmdRunSelection : public CliWorld {
 protected:
  // The names in the result of `run` with these words, in order.
  static std::vector<std::string> Measured(std::vector<std::string> words) {
    words.insert(words.begin(), {"run", "photos", "--format", "json", "--quiet"});
    const CommandResult result = Tool(words);
    EXPECT_EQ(0, result.status) << result.err;
    std::vector<std::string> names;
    if (result.status != 0) return names;
    const Json::Value shown = ParseJson(result.out);
    for (const Json::Value& row : shown["snapshots"]) names.push_back(row["name"].asString());
    return names;
  }

  // The lines of snapshots, with their header.
  static std::string LinesOf(const std::string& shown) {
    const size_t begin = shown.find("EXCLUSIVE");
    return shown.substr(begin, shown.find("\n\n", begin) + 1 - begin);
  }

  using Names = std::vector<std::string>;
};

TEST_F(CmdRunSelection, AllSnapshotsThoseWithoutATimeLast) {
  EXPECT_EQ((Names{kFirst, kSecond, kNoTime}), Measured({}));
}

TEST_F(CmdRunSelection, NamedSnapshotsEachOnceInTheOrderOfTheShare) {
  EXPECT_EQ((Names{kFirst, kNoTime}),
            Measured({"--snapshot", kNoTime, "--snapshot", kFirst, "--snapshot", kNoTime}));
}

TEST_F(CmdRunSelection, RangesIncludeBothEnds) {
  const struct {
    const char* name;
    Names words;
    Names expected;
  } cases[] = {
      {"both ends",
       {"--since", "2024-03-01 09:04:09", "--until", "2024.03.02-09.04.09"},
       {kFirst, kSecond}},
      {"a second after the first", {"--since", "2024-03-01 09:04:10"}, {kSecond}},
      {"a second before the second", {"--until", "2024-03-02 09:04:08"}, {kFirst}},
      {"the whole day", {"--since", "2024-03-02", "--until", "2024-03-02"}, {kSecond}},
      {"the whole minute", {"--until", "2024-03-01 09:04"}, {kFirst}},
      {"one second",
       {"--since", "2024-03-01 09:04:09", "--until", "2024-03-01 09:04:09"},
       {kFirst}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.expected, Measured(c.words));
  }
}

TEST_F(CmdRunSelection, SinceAloneTakesSnapshotsOfALaterTimeThanNow) {
  // The clock that named it was ahead of this one.
  volume_->Snapshot("photos", "photos/.snapshots/GMT-2199.01.01-00.00.00");
  EXPECT_EQ((Names{"GMT-2199.01.01-00.00.00"}), Measured({"--since", "2198-12-31"}));
  EXPECT_EQ((Names{kSecond, "GMT-2199.01.01-00.00.00"}), Measured({"--since", "2024-03-02"}));
}

TEST_F(CmdRunSelection, RangeIsRecordedForTheShare) {
  Measured({"--since", "2024-03-01", "--until", "2024-03-02"});
  const Json::Value status = ParseJson(ReadFile(kStatusOfPhotos));
  EXPECT_EQ("2024.03.01-00.00.00", status["range_start"].asString());
  EXPECT_EQ("2024.03.02-23.59.59", status["range_end"].asString());
}

TEST_F(CmdRunSelection, ShareCalledLikeACommand) {
  volume_->Subvolume("show");
  volume_->Snapshot("show", "show/.snapshots/status");
  EXPECT_EQ(0, Tool({"run", "show", "--snapshot", "status"}).status);
  EXPECT_EQ(0, Tool({"show", "show"}).status);
}

TEST_F(CmdRunSelection, TableForPeople) {
  table_ =
      "shift 9; printf '{\"format\":\"zorv-subvolume-size\",\"version\":1,\"generation\":7,"
      "\"subvolumes\":[%s,%s,%s],\"exclusive\":[],\"sets\":["
      "{\"subvolumes\":[%s],\"data\":1280,\"metadata\":0},"
      "{\"subvolumes\":[%s],\"data\":1073741824,\"metadata\":0}],\"complete\":true}' "
      "$1 $2 $3 $1 $3";
  FakeEngine(
      "echo \"subvol($1) 1280 bytes\"; echo \"subvol($2) 0 bytes\"\n"
      "echo \"subvol($3) 1073741824 bytes\"\n");
  const CommandResult result = Tool({"run", "photos", "--quiet"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("", result.err);
  EXPECT_THAT(result.out,
              testing::MatchesRegex(
                  "share photos, calculated ....-..-.. ..:..:.., generation 7, complete\n\n.*"));
  EXPECT_EQ(
      "EXCLUSIVE  RUNNING TOTAL  METADATA  WITH OLDER       NEW   ID                 TIME  SNAPSHOT\n"
      " 1.25 KiB       1.25 KiB       0 B    1.25 KiB  1.25 KiB  257  2024-03-01 09:04:09  "
      "GMT-2024.03.01-09.04.09\n"
      "      0 B       1.25 KiB       0 B    1.25 KiB       0 B  258  2024-03-02 09:04:09  "
      "GMT-2024.03.02-09.04.09\n"
      " 1.00 GiB       1.00 GiB       0 B           -         -  259                    -  by hand\n",
      LinesOf(result.out));
}

TEST_F(CmdRunSelection, RawBytes) {
  const CommandResult result = Tool({"run", "photos", "--raw", "--quiet"});
  EXPECT_EQ(
      "EXCLUSIVE  RUNNING TOTAL  METADATA  WITH OLDER   NEW   ID                 TIME  SNAPSHOT\n"
      "     2570           2570         0        2570  2570  257  2024-03-01 09:04:09  "
      "GMT-2024.03.01-09.04.09\n"
      "     2580           5150         0        5150  2580  258  2024-03-02 09:04:09  "
      "GMT-2024.03.02-09.04.09\n"
      "     2590           7740         0           -     -  259                    -  by hand\n",
      LinesOf(result.out));
}

TEST_F(CmdRunSelection, TableForScripts) {
  EXPECT_EQ(
      "2570\t2570\t0\t2570\t2570\t257\t2024-03-01T09:04:09+00:00\tGMT-2024.03.01-09.04.09\n"
      "2580\t5150\t0\t5150\t2580\t258\t2024-03-02T09:04:09+00:00\tGMT-2024.03.02-09.04.09\n"
      "2590\t7740\t0\t-\t-\t259\t-\tby hand\n",
      MustRun(Argv({"run", "photos", "-H", "--quiet"})));
}

TEST_F(CmdRunSelection, NameWithABlankAndUtf8) {
  const std::string share = "Fotos für 写真";
  volume_->Subvolume(share);
  volume_->Snapshot(share, share + "/.snapshots/één kopie");
  const CommandResult result = Tool({"run", share, "--snapshot", "één kopie", "--quiet"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.out, HasSubstr("share Fotos für 写真, calculated "));
  EXPECT_THAT(result.out, HasSubstr("  één kopie\n"));
  EXPECT_EQ(share, Shown(share)["share"].asString());
}

TEST_F(CmdRunSelection, NameWithANewlineStaysOnItsLine) {
  volume_->Snapshot("photos", "photos/.snapshots/two\nlines\x1b[31m");
  const CommandResult result =
      Tool({"run", "photos", "--snapshot", "two\nlines\x1b[31m", "--quiet"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.out, HasSubstr("  two\\nlines\\x1B[31m\n"));
  EXPECT_EQ("two\nlines\x1b[31m", Shown()["snapshots"][0]["name"].asString());
}

TEST_F(CmdRunSelection, ResultIsPrintedOnceTheCopiesAreThere) {
  for (int i = 0; i < 10; ++i) ASSERT_EQ(3u, Measured({}).size());
}

}  // namespace
