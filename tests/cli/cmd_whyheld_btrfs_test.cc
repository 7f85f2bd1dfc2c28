// `whyheld`: which snapshots keep the data of a path, over the real engine; what it says comes free
// does.
#include "tests/cli/cli_world.h"
#include "tests/support/btrfs_ioctls.h"

using namespace ZorvTest;

namespace {

class CmdWhyheld : public CliWorld {
 protected:
  // The film is in two snapshots, changed in between, and deleted since.
  CmdWhyheld() {
    RealEngine();
    MustRun({"mkdir", "/volume1/photos/trips"});
    WriteRandom(volume_->Path("photos/trips/film"), 1 << 20, 1);
    WriteRandom(volume_->Path("photos/kept"), 200000, 2);
    Snapshot(kOne);
    MustRun({"touch", "/volume1/photos/trips"});
    Snapshot(kTwo);
    WriteRandom(volume_->Path("photos/trips/film"), 4096, 3, 0);
    Snapshot(kThree);
    MustRun({"rm", "-r", "/volume1/photos/trips"});
    CommitAndClean("/volume1");
  }

  void Snapshot(const std::string& name) {
    volume_->Snapshot("photos", "photos/.snapshots/" + name);
  }

  static Json::Value Held(const std::string& path) {
    return ParseJson(MustRun(Argv({"whyheld", "photos", path, "--format", "json"})));
  }

  static constexpr char kOne[] = "GMT-2024.03.05-09.04.09";
  static constexpr char kTwo[] = "GMT-2024.03.06-09.04.09";
  static constexpr char kThree[] = "GMT-2024.03.07-09.04.09";
};

std::vector<std::string> Names(const Json::Value& names) {
  std::vector<std::string> found;
  for (const Json::Value& name : names) found.push_back(name.asString());
  return found;
}

TEST_F(CmdWhyheld, SaysWhichSnapshotsMustGo) {
  const Json::Value found = Held("trips/film");
  EXPECT_EQ("trips/film", found["path"].asString());
  ASSERT_EQ(2u, found["versions"].size());
  EXPECT_EQ((std::vector<std::string>{kOne, kTwo}), Names(found["versions"][0]["snapshots"]));
  EXPECT_EQ((std::vector<std::string>{kThree}), Names(found["versions"][1]["snapshots"]));
  EXPECT_EQ(1u << 20, found["versions"][0]["size"].asUInt64());
  EXPECT_FALSE(found["versions"][0]["in_share"].asBool());
  EXPECT_FALSE(found["versions"][0]["directory"].asBool());
  EXPECT_EQ(3u, found["without"].size());
  ASSERT_EQ(2u, found["held"].size());
  EXPECT_EQ(1u << 20, found["held"][0]["data"].asUInt64());
  EXPECT_TRUE(found["held"][0]["comes_free"].asBool());
  EXPECT_EQ((std::vector<std::string>{kOne, kTwo, kThree}), Names(found["held"][0]["snapshots"]));
  EXPECT_EQ(4096u, found["held"][1]["data"].asUInt64());
  EXPECT_EQ((std::vector<std::string>{kThree}), Names(found["held"][1]["snapshots"]));

  const SpaceUsed before = UsedSpace("/volume1");
  for (const std::string name : {kThree, kOne}) {
    DestroySubvolume(volume_->Path("photos/.snapshots/" + name));
    CommitAndClean("/volume1");
  }
  EXPECT_EQ(before.data - 4096, UsedSpace("/volume1").data) << "the second still has the film";
  DestroySubvolume(volume_->Path(std::string("photos/.snapshots/") + kTwo));
  CommitAndClean("/volume1");
  EXPECT_EQ(before.data - 4096 - (1 << 20), UsedSpace("/volume1").data);
}

TEST_F(CmdWhyheld, SaysWhatStays) {
  const Json::Value found = Held("/volume1/photos/kept");
  EXPECT_EQ("kept", found["path"].asString());
  ASSERT_EQ(1u, found["versions"].size());
  EXPECT_TRUE(found["versions"][0]["in_share"].asBool());
  ASSERT_EQ(1u, found["held"].size());
  EXPECT_FALSE(found["held"][0]["comes_free"].asBool());
  EXPECT_TRUE(found["held"][0]["in_share"].asBool());
  EXPECT_FALSE(found["held"][0]["outside"].asBool());

  volume_->Subvolume("other");
  CloneRange({volume_->Path("photos/kept")}, volume_->Path("other/clone"));
  CommitAndClean("/volume1");
  EXPECT_TRUE(Held("./kept")["held"][0]["outside"].asBool());

  MustRun({"rm", "/volume1/photos/kept"});
  CommitAndClean("/volume1");
  const Json::Value left = Held("kept")["held"];
  ASSERT_EQ(1u, left.size());
  EXPECT_FALSE(left[0]["in_share"].asBool());
  EXPECT_TRUE(left[0]["outside"].asBool());
  EXPECT_FALSE(left[0]["comes_free"].asBool()) << "the clone still has it";
}

TEST_F(CmdWhyheld, AddsUpFolders) {
  const Json::Value found = Held("trips/");
  EXPECT_EQ("trips", found["path"].asString());
  EXPECT_TRUE(found["versions"][0]["directory"].asBool());
  EXPECT_EQ(1u, found["versions"][0]["files"].asUInt64());
  ASSERT_EQ(2u, found["held"].size());
  EXPECT_EQ(1u << 20, found["held"][0]["data"].asUInt64());
}

TEST_F(CmdWhyheld, PrintsTablesForPeople) {
  const CommandResult result = Tool({"whyheld", "photos", "trips/film"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.out, HasSubstr("share photos, trips/film, generation "));
  EXPECT_THAT(result.out, HasSubstr("HELD BY\n"));
  EXPECT_THAT(result.out, HasSubstr("GMT-2024.03.05-09.04.09 to GMT-2024.03.07-09.04.09 (3)\n"));
  EXPECT_THAT(result.out, HasSubstr("1.00 MiB come free when these go: "));
  const CommandResult lines = Tool({"whyheld", "photos", "trips/film", "-H", "--sort=+data"});
  EXPECT_EQ(0u, lines.out.find("4096\tGMT-2024.03.07-09.04.09\n1048576\t")) << lines.out;
  EXPECT_THAT(Tool({"whyheld", "photos", "kept"}).out, HasSubstr("stay: the share itself"));
}

TEST_F(CmdWhyheld, RefusesPathsThatAreNotThere) {
  const CommandResult near = Tool({"whyheld", "photos", "trips/flim"});
  EXPECT_EQ(19, near.status);
  EXPECT_EQ(
      "zorv-snapusage: there is no 'trips/flim' in share 'photos', nor in any of its 6 snapshots; "
      "did you mean 'trips/film'?\n",
      near.err);
  EXPECT_THAT(Tool({"whyheld", "photos", "nothing/like/it"}).err,
              HasSubstr("give its path from the root of the share"));
  const CommandResult outside = Tool({"whyheld", "photos", "/volume1/other/x"});
  EXPECT_EQ(2, outside.status);
  EXPECT_THAT(outside.err, HasSubstr("'/volume1/other/x' is not in share 'photos'"));
  EXPECT_EQ(2, Tool({"whyheld", "photos", "../photos2"}).status);
  volume_->Subvolume("photos/nested");
  CommitAndClean("/volume1");
  const CommandResult nested = Tool({"whyheld", "photos", "nested/x"});
  EXPECT_EQ(19, nested.status);
  EXPECT_THAT(nested.err, HasSubstr("is in a subvolume of its own inside share 'photos'"));
}

}  // namespace
