// The scan on file systems that change while it reads: commits come between its reads and reuse
// what they have freed.
#include <gtest/gtest.h>

#include <array>

#include "tests/engine/graph_run.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

// Notes how many blocks each run takes.
class CountedScan : public ExclusiveSizeMethod {
 public:
  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override {
    const uint64_t before = progress.meter.counters.blocksVerified;
    const Status done = scan_.Run(trees, request, progress, out);
    blocks.push_back(progress.meter.counters.blocksVerified - before);
    return done;
  }

  std::vector<uint64_t> blocks;

 private:
  ExtentTreeScan scan_;
};

// A file system that changes at random, but for the subvolumes that are asked about being there.
struct BusyGraph : RandomGraph {
  BusyGraph(unsigned seed, int every, int mostCommits) : RandomGraph(seed, 10, 80) {
    const std::set<uint64_t> kept(ids.begin(), ids.end());
    filesystem.Device().CallEvery(every, [this, kept, mostCommits] {
      if (commits == mostCommits) return;
      ++commits;
      filesystem.Change(&random, 1 + static_cast<int>(random() % 4), 12, kept);
      filesystem.Commit();
    });
  }

  int commits = 0;
};

// A file system on which there is a newer commit whenever somebody looks.
class NewerWhenLookedAt : public StateSource {
 public:
  NewerWhenLookedAt(GraphFilesystem& filesystem, uint64_t written)
      : filesystem_(filesystem), written_(written) {}

  const DeviceSet& Devices() const override { return filesystem_.Devices(); }
  Status CommitAndReadSuperblock(Superblock* out, std::string* note) override {
    return filesystem_.CommitAndReadSuperblock(out, note);
  }
  Status ReadSuperblock(Superblock* out) override {
    ++looks;
    filesystem_.Trees().Write(written_);
    filesystem_.Commit();
    return filesystem_.ReadSuperblock(out);
  }

  int looks = 0;

 private:
  GraphFilesystem& filesystem_;
  const uint64_t written_;
};

}  // namespace

// Whether in use by the extent tree or by a subvolume: what no commit replaces is damaged.
TEST(GraphRepair, NamesADamagedBlockHoweverManyCommitsCome) {
  size_t named = 0;
  for (unsigned seed = 1; seed <= 25; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed, 6, 40);
    const uint64_t other = graph.filesystem.Trees().Create(1);
    graph.filesystem.Commit();
    std::vector<uint64_t> places = graph.filesystem.ExtentTree().Places();
    for (const auto& [bytenr, block] : graph.filesystem.Trees().Blocks()) places.push_back(bytenr);
    for (int round = 0; round < 8; ++round) {
      const uint64_t place = places[graph.random() % places.size()];
      const Bytes sound = graph.filesystem.Device().Get(place);
      graph.filesystem.Device().Put(place, Bytes(kNodeSize));
      for (const bool walks : {false, true}) {
        ExtentTreeScan scan;
        TopDownWalk walk;
        SizeResult result;
        NewerWhenLookedAt source(graph.filesystem, other);
        const Status done = RunOn(source, walks ? static_cast<ExclusiveSizeMethod&>(walk) : scan,
                                  Ask(graph.ids), &result);
        EXPECT_LE(source.looks, kMostOfOneBlock);
        if (done.Ok()) {
          ASSERT_EQ(ExpectedRows(graph.filesystem.HoldersAt(result.generation), graph.ids),
                    PlainRows(result.table));
          continue;
        }
        ++named;
        EXPECT_EQ(0u, done.Text().find("tree block " + std::to_string(place) + " ")) << done.Text();
        EXPECT_NE(std::string::npos, done.Text().find("its checksum is wrong; run btrfs scrub"))
            << done.Text();
      }
      if (sound == graph.filesystem.Device().Get(place) ||
          Bytes(kNodeSize) == graph.filesystem.Device().Get(place))
        graph.filesystem.Device().Put(place, sound);
    }
  }
  EXPECT_GT(named, 50u);
}

TEST(GraphRepair, EndsWithTheNumbersOfTheGenerationThatItNames) {
  size_t repaired = 0;
  size_t passes = 0;
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(seed);
    BusyGraph graph(seed, 2 + static_cast<int>(seed % 7), 2 + static_cast<int>(seed % 11));
    CountedScan scan;
    SizeResult result;
    SizeProgress progress;
    const SizeRequest request = seed % 3 == 0 ? AskAlone(graph.ids) : Ask(graph.ids);
    const Status done = RunOn(graph.filesystem, scan, request, &result, &progress);
    ASSERT_TRUE(done.Ok()) << done.Text();
    ASSERT_EQ(
        Asked(ExpectedRows(graph.filesystem.HoldersAt(result.generation), graph.ids), request),
        PlainRows(result.table));
    EXPECT_EQ(progress.meter.total, progress.meter.processed);
    passes += scan.blocks.size();
    repaired += scan.blocks.size() > 1 ? 1 : 0;
  }
  EXPECT_GT(repaired, 50u);
  EXPECT_GT(passes, 300u);
}

// Outside holders that go make leaves reached whose extents' items nobody has touched.
TEST(GraphRepair, SeesWhatIsReachedOnlyWhenAnOutsideHolderHasGone) {
  size_t repaired = 0;
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed, 6, 40);
    GraphTrees& trees = graph.filesystem.Trees();
    graph.ids = {trees.Subvolumes()[0]};
    if (trees.IsRelocated(graph.ids[0])) continue;
    std::vector<uint64_t> others;
    for (int i = 0; i < 3; ++i) {
      others.push_back(trees.Snapshot(graph.ids[0]));
      trees.Write(graph.ids[0]);
    }
    graph.filesystem.Commit();
    graph.filesystem.Device().CallEvery(3 + static_cast<int>(seed % 9), [&] {
      if (!others.empty()) {
        trees.Delete(others.back());
        others.pop_back();
      }
      trees.Write(trees.Subvolumes().back());
      if (graph.filesystem.LastGeneration() < 160) graph.filesystem.Commit();
    });
    CountedScan scan;
    SizeResult result;
    const Status done = RunOn(graph.filesystem, scan, Ask(graph.ids), &result);
    ASSERT_TRUE(done.Ok()) << done.Text();
    ASSERT_EQ(ExpectedRows(graph.filesystem.HoldersAt(result.generation), graph.ids),
              PlainRows(result.table));
    repaired += scan.blocks.size() > 1 ? 1 : 0;
  }
  EXPECT_GT(repaired, 30u);
}

// A run goes on from what the one before has kept, whatever has changed since.
TEST(GraphRepair, IsRightInEachStateAfterTheOther) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed, 8, 60);
    const std::set<uint64_t> kept(graph.ids.begin(), graph.ids.end());
    const std::array<SizeRequest, 2> requests = {Ask(graph.ids), AskAlone(graph.ids)};
    std::array<ExtentTreeScan, 2> scans;
    for (int state = 0; state < 8; ++state) {
      for (size_t i = 0; i < scans.size(); ++i) {
        SizeResult result;
        const Status done = RunOn(graph.filesystem, scans[i], requests[i], &result);
        ASSERT_TRUE(done.Ok()) << done.Text();
        ASSERT_EQ(Asked(graph.Expected(), requests[i]), PlainRows(result.table))
            << "state " << state;
      }
      graph.filesystem.Change(&graph.random, 1 + static_cast<int>(graph.random() % 6), 10, kept);
      graph.filesystem.Commit();
    }
  }
}

// Leaves that name themselves to their data, below a block that two subvolumes have by name: when
// one of these goes, the leaves come within reach of the other, and nothing that is said of their
// data changes.
TEST(GraphRepair, LooksAgainAtDataOfLeavesThatComeWithinReach) {
  size_t cases = 0;
  for (unsigned seed = 1; seed <= 100; ++seed) {
    SCOPED_TRACE(seed);
    GraphShape shape;
    shape.itemsPerLeaf = 4;
    GraphFilesystem filesystem(seed, shape);
    GraphTrees& trees = filesystem.Trees();
    const uint64_t first = trees.Create(4);
    const uint64_t asked = trees.Snapshot(first);
    for (int i = 0; i < 6; ++i) trees.Write(first);
    for (int i = 0; i < 3; ++i) trees.Write(asked);
    const uint64_t other = trees.Snapshot(asked);
    filesystem.Commit();

    ExtentTreeScan scan;
    for (const bool otherHasGone : {false, true}) {
      SizeResult result;
      const Status done = RunOn(filesystem, scan, Ask({asked}), &result);
      ASSERT_TRUE(done.Ok()) << done.Text();
      const PlainSums expected =
          ExpectedRows(filesystem.HoldersAt(filesystem.LastGeneration()), {asked});
      ASSERT_EQ(expected, PlainRows(result.table));
      if (otherHasGone) continue;
      trees.Delete(other);
      filesystem.Commit();
      const auto alone = expected.find({0});
      cases += alone == expected.end() || alone->second.first == 0 ? 1 : 0;
    }
  }
  EXPECT_GT(cases, 20u);
}

// Each pass reads what has changed since the one before, not everything: with a commit after every
// few reads, a later pass reads less than four fifths of the first on the average.
TEST(GraphRepair, ReadsLessInEachPass) {
  uint64_t first = 0;
  uint64_t others = 0;
  size_t repairs = 0;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    BusyGraph graph(seed, 6, 60);
    CountedScan scan;
    SizeResult result;
    const Status done = RunOn(graph.filesystem, scan, Ask(graph.ids), &result);
    ASSERT_TRUE(done.Ok()) << done.Text();
    for (size_t pass = 1; pass < scan.blocks.size(); ++pass) {
      first += scan.blocks[0];
      others += scan.blocks[pass];
      ++repairs;
    }
  }
  EXPECT_GT(repairs, 30u);
  EXPECT_LT(others, first * 8 / 10);
}
