// `explain`: the files behind what a snapshot alone holds, over the real engine; what it says is
// what comes free.
#include "tests/cli/cli_world.h"
#include "tests/support/btrfs_ioctls.h"

using namespace ZorvTest;

namespace {

class CmdExplain : public CliWorld {
 protected:
  CmdExplain() {
    RealEngine();
    MustRun({"mkdir", "-p", "/volume1/photos/trips/2023"});
    WriteRandom(volume_->Path("photos/trips/2023/film"), 1 << 20, 1);
    WriteRandom(volume_->Path("photos/trips/map"), 300000, 2);
    WriteRandom(volume_->Path("photos/odd\nname\xFF"), 100000, 3);
    CloneRange({volume_->Path("photos/trips/2023/film")}, volume_->Path("photos/copy"));
    volume_->Snapshot("photos", std::string("photos/.snapshots/") + kHolding);
    MustRun({"bash", "-c", "cd /volume1/photos; rm -r trips copy odd*"});
    CommitAndClean("/volume1");
  }

  static Json::Value Explained(std::vector<std::string> more = {}) {
    std::vector<std::string> words = {"explain", "photos", kHolding, "--format", "json"};
    words.insert(words.end(), more.begin(), more.end());
    return ParseJson(MustRun(Argv(words)));
  }

  static constexpr char kHolding[] = "GMT-2024.03.05-09.04.09";
};

TEST_F(CmdExplain, SaysWhatDeletionFrees) {
  const Json::Value found = Explained();
  EXPECT_EQ(1, found["__header"]["version"].asInt());
  EXPECT_EQ("photos", found["share"].asString());
  EXPECT_EQ(kHolding, found["snapshot"].asString());
  EXPECT_EQ(ID(kHolding), found["subvolume_id"].asUInt64());
  EXPECT_GT(found["generation"].asUInt64(), 0u);
  EXPECT_EQ(3u, found["files"].asUInt64());
  EXPECT_EQ(0u, found["unlinked_files"].asUInt64());
  const uint64_t total = found["data"].asUInt64() + found["metadata"].asUInt64();
  EXPECT_EQ(volume_->KernelExclusive().at(ID(kHolding)), total);

  const SpaceUsed before = UsedSpace("/volume1");
  DestroySubvolume(volume_->Path(std::string("photos/.snapshots/") + kHolding));
  CommitAndClean("/volume1");
  EXPECT_EQ(before.data - UsedSpace("/volume1").data, found["data"].asUInt64());
}

TEST_F(CmdExplain, NamesTheLargestFilesAndFolders) {
  const Json::Value found = Explained({"--depth", "2"});
  const Json::Value& files = found["largest_files"];
  ASSERT_EQ(3u, files.size());
  EXPECT_EQ("trips/2023/film", files[0]["path"].asString());
  EXPECT_EQ(1u << 20, files[0]["data"].asUInt64());
  EXPECT_EQ(1u << 20, files[0]["shared_data"].asUInt64()) << "the copy refers to it too";
  EXPECT_EQ(1u, files[0]["names"].asUInt64());
  EXPECT_EQ("trips/map", files[1]["path"].asString());
  EXPECT_EQ("odd\nname\xEF\xBF\xBD", files[2]["path"].asString());
  const Json::Value& folders = found["largest_folders"];
  ASSERT_EQ(2u, folders.size());
  EXPECT_EQ("trips", folders[0]["path"].asString());
  EXPECT_EQ((1u << 20) + 303104, folders[0]["data"].asUInt64());
  EXPECT_EQ(2u, folders[0]["files"].asUInt64());
  EXPECT_EQ("trips/2023", folders[1]["path"].asString());
}

TEST_F(CmdExplain, PrintsTablesForPeople) {
  const CommandResult result = Tool({"explain", "photos", kHolding});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.out, HasSubstr("share photos, snapshot GMT-2024.03.05-09.04.09, generation "));
  EXPECT_THAT(result.out, HasSubstr("FILE\n"));
  EXPECT_THAT(result.out, HasSubstr("trips/2023/film\n"));
  EXPECT_THAT(result.out, HasSubstr("odd\\nname\\xFF\n"));
  EXPECT_THAT(result.out, HasSubstr("FOLDER\n"));
  EXPECT_THAT(result.out, ContainsRegex("of data in 3 files, .* held by this snapshot alone\n"));
}

TEST_F(CmdExplain, PrintsLinesForScripts) {
  const CommandResult files = Tool({"explain", "photos", kHolding, "-H", "--top", "1"});
  EXPECT_EQ(0, files.status) << files.err;
  EXPECT_THAT(files.out, testing::MatchesRegex("1048576\t1048576\t1\t[0-9]+\ttrips/2023/film\n"));
  EXPECT_EQ("1351680\t2\ttrips\n", Tool({"explain", "photos", kHolding, "-H", "--folders"}).out);
  EXPECT_EQ("", Tool({"explain", "photos", kHolding, "-H", "--folders", "--depth", "0"}).out);
  const CommandResult sorted = Tool({"explain", "photos", kHolding, "-H", "--sort=+data"});
  EXPECT_EQ(0u, sorted.out.find("102400\t"));
}

TEST_F(CmdExplain, RefusesWhatIsNotThere) {
  const CommandResult result = Tool({"explain", "photos", "GMT-2024.03.05-09.04.08"});
  EXPECT_EQ(8, result.status);
  EXPECT_EQ(
      "zorv-snapusage: share 'photos' has no snapshot 'GMT-2024.03.05-09.04.08'; did you mean "
      "'GMT-2024.03.05-09.04.09'?\n",
      result.err);
  EXPECT_EQ(5, Tool({"explain", "phots", kHolding}).status);
  EXPECT_EQ(2, Tool({"explain", "photos"}).status);
  EXPECT_EQ(2, Tool({"explain", "photos", kHolding, "--top", "0"}).status);
}

TEST_F(CmdExplain, TakesNoAnswerThatContradictsItself) {
  const std::string id = std::to_string(ID(kHolding));
  const std::string head =
      R"({"format":"zorv-subvolume-size","version":1,"generation":7,"subvolumes":[)" + id +
      R"(],"exclusive":[{"subvolume":)" + id +
      R"(,"data":4096,"metadata":0}],"files":{"all":{"files":1,"data":)";
  const std::string tail = R"(},"unlinked":{"files":0,"data":0},"largest":[],"folders":[]}})";
  FakeEngine("echo '" + head + "4096" + tail + "'");
  EXPECT_EQ(0, Tool({"explain", "photos", kHolding}).status);
  for (const std::string& answer :
       {head + "8192" + tail, head + "4096", std::string("subvol(257) 4096 bytes")}) {
    FakeEngine("echo '" + answer + "'");
    const CommandResult result = Tool({"explain", "photos", kHolding});
    EXPECT_EQ(7, result.status) << answer;
    EXPECT_EQ("", result.out);
    EXPECT_THAT(result.err, HasSubstr("cannot be read"));
  }
}

}  // namespace
