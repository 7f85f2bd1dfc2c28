// Plans and tables on real file systems: held against the sizes of the same run, against each
// other, and against what deletion frees.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>

#include "tests/engine/forecast_run.h"
#include "tests/engine/history.h"

using namespace ZorvTest;

namespace {

using Ids = std::vector<unsigned long long>;

Json::Value ParseJson(const std::string& text) {
  Json::Value document;
  std::istringstream in(text);
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &document, &errors)) << errors;
  return document;
}

class Forecast : public testing::Test {
 protected:
  Forecast() { MakeHistory(volume_, 200, 6); }

  Ids IdsOf(const std::vector<std::string>& names) const {
    Ids ids;
    for (const std::string& name : names) ids.push_back(SubvolumeID(volume_.Path(name)));
    return ids;
  }

  BtrfsVolume volume_{kMount, Options(256, {"-m", "dup", "-d", "single"})};
};

}  // namespace

TEST_F(Forecast, OfOneIsItsExclusiveSize) {
  for (const unsigned long long id : IdsOf({"snap1", "written", "live"})) {
    const EngineRun run = RunEngine({"-vm", "-r", kMount, "--forecast", std::to_string(id)});
    EXPECT_EQ(0, run.status) << run.err;
    const std::vector<ForecastStep> steps = StepsOf(run);
    ASSERT_EQ(1u, steps.size());
    EXPECT_EQ(id, steps[0].id);
    EXPECT_EQ(run.sizes.at(id), steps[0].data + steps[0].metadata);
    EXPECT_GT(steps[0].metadata, 0u);
  }
}

TEST_F(Forecast, AddsUpAndSaysRawBytes) {
  const Ids ids = IdsOf({"snap1", "snap2", "snap4", "written"});
  const EngineRun run = RunEngine({"--forecast=" + Joined(ids), "-r", kMount});
  EXPECT_EQ(0, run.status) << run.err;
  unsigned long long data = 0, metadata = 0;
  const std::vector<ForecastStep> steps = StepsOf(run);
  ASSERT_EQ(ids.size(), steps.size());
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(ids[i], steps[i].id);
    data += steps[i].data;
    metadata += steps[i].metadata;
    EXPECT_EQ(data, steps[i].soFarData);
    EXPECT_EQ(metadata, steps[i].soFarMetadata);
  }
  const std::string all =
      "forecast all data " + std::to_string(data) + " metadata " + std::to_string(metadata);
  EXPECT_NE(std::string::npos, run.out.find(all + "\n")) << run.out;
  EXPECT_NE(std::string::npos,
            run.out.find("forecast raw single data " + std::to_string(data) + " metadata 0\n"))
      << run.out;
  EXPECT_NE(std::string::npos,
            run.out.find("forecast raw dup data 0 metadata " + std::to_string(2 * metadata) + "\n"))
      << run.out;
}

TEST_F(Forecast, TakesFurtherIdsAndRepeats) {
  const Ids ids = IdsOf({"snap1", "snap2", "written"});
  const std::string plan = Joined({ids[0], ids[1]});
  const std::string again = std::to_string(ids[0]);
  const EngineRun alone = RunEngine({"--forecast", plan, "-r", kMount});
  const EngineRun more = RunEngine(
      {"-v", "--forecast", plan + "," + again, "-r", kMount, std::to_string(ids[2]), again});
  EXPECT_EQ(0, more.status);
  EXPECT_EQ(3u, more.sizes.size());
  const std::string note =
      "NOTE: subvolume " + again + " is given more than once; it counts once\n";
  EXPECT_EQ(note, more.err);
  EXPECT_EQ(alone.out.substr(alone.out.find("forecast ")),
            more.out.substr(more.out.find("forecast ")));
}

TEST_F(Forecast, IsTheSameWithTheTableAsWithout) {
  const Ids ids = IdsOf({"snap5", "snap4", "written", "snap1"});
  const EngineRun alone = RunEngine({"--forecast", Joined(ids), "-r", kMount});
  const EngineRun table = RunEngine({"--table", "--forecast", Joined(ids), "-r", kMount});
  EXPECT_EQ(0, table.status) << table.err;
  EXPECT_EQ("table complete", table.lines.back());
  EXPECT_EQ(0u, table.out.find(alone.out.substr(0, alone.out.find("total"))));
  EXPECT_NE(std::string::npos, table.out.find(alone.out.substr(alone.out.find("forecast "))));
}

TEST_F(Forecast, SaysTheSameAsJson) {
  const Ids ids = IdsOf({"snap1", "snap2", "written"});
  const std::vector<ForecastStep> steps =
      StepsOf(RunEngine({"--forecast", Joined(ids), "-r", kMount}));
  const EngineRun run =
      RunEngine({"--format", "json", "--table", "--forecast", Joined(ids), "-r", kMount});
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ("", run.err);
  const Json::Value document = ParseJson(run.out);
  EXPECT_EQ("zorv-subvolume-size", document["format"].asString());
  EXPECT_EQ(1u, document["version"].asUInt());
  EXPECT_GT(document["generation"].asUInt64(), 0u);
  EXPECT_TRUE(document["complete"].asBool());
  const Sizes sizes = EngineSizes("-vm", kMount, ids);
  for (Json::ArrayIndex i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(ids[i], document["subvolumes"][i].asUInt64());
    const Json::Value& exclusive = document["exclusive"][i];
    EXPECT_EQ(sizes.at(ids[i]), exclusive["data"].asUInt64() + exclusive["metadata"].asUInt64());
    const Json::Value& step = document["forecast"]["steps"][i];
    EXPECT_EQ(steps[i].id, step["subvolume"].asUInt64());
    EXPECT_EQ(steps[i].data, step["data"].asUInt64());
    EXPECT_EQ(steps[i].soFarMetadata, step["so_far"]["metadata"].asUInt64());
    EXPECT_EQ(2 * steps[i].metadata, step["profiles"]["dup"]["raw_metadata"].asUInt64());
  }
}

// What comes free when some go is the sum over the sets that have no other member.
TEST_F(Forecast, IsTheSumOverTheSetsOfTheTable) {
  const Ids ids = IdsOf({"snap1", "snap2", "snap4", "snap5", "written"});
  std::vector<std::string> args = {"--table", "--format=json", "-r", kMount};
  for (const unsigned long long id : ids) args.push_back(std::to_string(id));
  const Json::Value document = ParseJson(RunEngine(args).out);
  bool together = false;
  for (unsigned plan = 1; plan < 1u << ids.size(); plan += 3) {
    SCOPED_TRACE(plan);
    Ids order;
    for (size_t i = ids.size(); i-- > 0;)
      if ((plan >> i & 1) != 0) order.push_back(ids[i]);
    unsigned long long data = 0, metadata = 0;
    for (const Json::Value& set : document["sets"]) {
      const bool within = std::all_of(
          set["subvolumes"].begin(), set["subvolumes"].end(), [&](const Json::Value& id) {
            return std::find(order.begin(), order.end(), id.asUInt64()) != order.end();
          });
      if (!within) continue;
      data += set["data"].asUInt64();
      metadata += set["metadata"].asUInt64();
      together |= set["subvolumes"].size() > 1 && set["data"].asUInt64() > 0;
    }
    const std::vector<ForecastStep> steps =
        StepsOf(RunEngine({"--forecast", Joined(order), "-r", kMount}));
    ASSERT_EQ(order.size(), steps.size());
    EXPECT_EQ(data, steps.back().soFarData);
    EXPECT_EQ(metadata, steps.back().soFarMetadata);
  }
  EXPECT_TRUE(together) << "no set of several holds data: this file system shows nothing";
}

// To take its name from the original, blocks that a snapshot shares are copied: the old ones are
// the snapshot's alone then, the new ones the original's.
TEST_F(Forecast, ShiftsByAFewBlocksWhenANestedSubvolumeIsDeleted) {
  constexpr unsigned long long kBlock = 16384;
  constexpr unsigned long long kMostBlocks = 8;
  volume_.Subvolume("live/inner");
  Write("live/inner/file", 100000, 1);
  volume_.Snapshot("live", "around");
  const Ids ids = IdsOf({"live/inner", "around", "live"});
  MustRun({"sync", "-f", kMount});
  const std::vector<ForecastStep> planned =
      StepsOf(RunEngine({"--forecast", Joined({ids[0], ids[1]}), "-r", kMount}));
  ASSERT_EQ(2u, planned.size());
  const Sizes before = EngineSizes("-vm", kMount, {ids[1], ids[2]});

  volume_.DeleteSubvolume("live/inner");
  MustRun({kStockBtrfs, "subvolume", "sync", kMount});
  const std::vector<ForecastStep> found =
      StepsOf(RunEngine({"--forecast", Joined({ids[1]}), "-r", kMount}));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(planned[1].data, found[0].data);
  const unsigned long long copied = found[0].metadata - planned[1].metadata;
  EXPECT_GE(copied, kBlock);
  EXPECT_LE(copied, kMostBlocks * kBlock);
  const Sizes after = EngineSizes("-vm", kMount, {ids[1], ids[2]});
  for (const auto& [id, bytes] : before) EXPECT_EQ(bytes + copied, after.at(id)) << id;
}

TEST_F(Forecast, RefusesAsForArguments) {
  const std::string live = std::to_string(IdsOf({"live"})[0]);
  ExpectFailure(RunEngine({"--forecast", live + ",4000", "-r", kMount}),
                "there is no subvolume 4000 on the file system; see btrfs subvolume list",
                "there is no subvolume # on the file system; see btrfs subvolume list");
  const EngineRun run = RunEngine({"--format", "json", "--forecast", live + ",4000", "-r", kMount});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(
      "exclusive sizes unavailable: there is no subvolume # on the file system; see btrfs subvolume "
      "list\n",
      run.out);
}

TEST_F(Forecast, LeavesNoHalfDocumentOnAFullDisk) {
  const std::string live = std::to_string(IdsOf({"live"})[0]);
  const std::string script =
      std::string("mkdir /tmp/small; mount -t tmpfs -o size=4096 x /tmp/small;") +
      "head -c 4000 /dev/zero > /tmp/small/out;" + ZORV_ENGINE_PATH +
      " subvolume size --format json -r /volume1 " + live +
      " 5 >> /tmp/small/out; echo $?; stat -c %s /tmp/small/out;"
      " umount /tmp/small";
  const CommandResult result = ZorvTest::Run({"bash", "-c", script});
  EXPECT_EQ("1\n4000\n", result.out);
  EXPECT_EQ("ERROR: cannot write: No space left on device\n", result.err);
}
