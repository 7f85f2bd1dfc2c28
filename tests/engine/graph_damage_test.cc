// Damaged blocks with right checksums, anywhere in random file systems: a number or a reason, never
// a crash, a hang or an exception.
#include <gtest/gtest.h>

#include <functional>

#include "tests/engine/graph_run.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

// Changes a few bytes of a block where something stands.
void Damage(Bytes* block, std::mt19937* random) {
  std::vector<size_t> used;
  for (size_t at = kChecksumSize; at < block->size(); ++at)
    if ((*block)[at] != 0 || (*random)() % 64 == 0) used.push_back(at);
  for (int changes = 1 + static_cast<int>((*random)() % 3); changes > 0; --changes) {
    uint8_t& byte = (*block)[used[(*random)() % used.size()]];
    const uint8_t values[] = {0,
                              1,
                              0xFF,
                              static_cast<uint8_t>(byte + 1),
                              static_cast<uint8_t>(byte ^ 1 << (*random)() % 8),
                              static_cast<uint8_t>((*random)())};
    byte = values[(*random)() % std::size(values)];
  }
  Seal(block);
}

// Has one block say what another one says, but for its own place.
void Confuse(SparseDevice* device, uint64_t place, uint64_t other) {
  const uint64_t generation = [&] {
    Bytes block = device->Get(place);
    return HeaderOf(&block).generation.Get();
  }();
  Bytes block = device->Get(other);
  HeaderOf(&block).bytenr.Set(place);
  HeaderOf(&block).generation.Set(generation);
  Seal(&block);
  device->Put(place, block);
}

// The head of the entry of a tree block with one reference.
Bytes EntryOf(uint64_t generation) {
  ExtentItem head{};
  head.refs.Set(1);
  head.generation.Set(generation);
  head.flags.Set(kExtentIsTreeBlock);
  return BytesOf(head);
}

struct Outcomes {
  int right = 0;
  int wrong =
      0;  // numbers of a file system that contradicts itself nowhere that matters to a count
  int refused = 0;

  void Take(RandomGraph& graph, ExclusiveSizeMethod& method) {
    SizeResult result;
    const Status done = RunOn(graph.filesystem, method, Ask(graph.ids), &result);
    ASSERT_EQ(done.Ok(), done.Text().empty());
    if (!done.Ok()) {
      ++refused;
      EXPECT_TRUE(result.table.ids.empty());
    } else {
      ++(PlainRows(result.table) == graph.Expected() ? right : wrong);
    }
  }
};

// Counts on random file systems, each time with one block as `spoil` has made it; it is given the
// file system, all places of blocks, and the one.
void ExpectNumbersOrReasons(
    const std::function<void(RandomGraph*, const std::vector<uint64_t>&, uint64_t)>& spoil) {
  Outcomes scan, walk;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed, 8, 40);
    SparseDevice& device = graph.filesystem.Device();
    const std::vector<uint64_t> places = device.Places();
    for (int round = 0; round < 20; ++round) {
      const uint64_t place = places[graph.random() % places.size()];
      const Bytes sound = device.Get(place);
      spoil(&graph, places, place);
      ExtentTreeScan scanning;
      scan.Take(graph, scanning);
      TopDownWalk walking;
      walk.Take(graph, walking);
      device.Put(place, sound);
    }
  }
  for (const Outcomes& outcomes : {scan, walk}) {
    EXPECT_GT(outcomes.right, 300);
    EXPECT_GT(outcomes.refused, 100);
  }
}

}  // namespace

TEST(GraphDamage, OfAnyBytesGivesANumberOrAReason) {
  ExpectNumbersOrReasons([](RandomGraph* graph, const std::vector<uint64_t>&, uint64_t place) {
    Bytes block = graph->filesystem.Device().Get(place);
    Damage(&block, &graph->random);
    graph->filesystem.Device().Put(place, block);
  });
}

// Blocks of one tree in the places of another's: leaves of the extent tree as files, and so on.
TEST(GraphDamage, OfBlocksThatStandForOthersGivesANumberOrAReason) {
  ExpectNumbersOrReasons(
      [](RandomGraph* graph, const std::vector<uint64_t>& places, uint64_t place) {
        Confuse(&graph->filesystem.Device(), place, places[graph->random() % places.size()]);
      });
}

// A leaf of the extent tree that says that it is a subvolume's root itself: what was kept of it as
// the one was taken for the other.
TEST(GraphDamage, OfAnExtentTreeThatClaimsToBeASubvolumeIsReadAsWhatItIsTakenFor) {
  GraphShape shape;
  shape.itemsPerLeaf = 1000;
  GraphFilesystem filesystem(1, shape);
  const uint64_t id = filesystem.Trees().Create(1);
  filesystem.Commit();
  const GraphRoot extentRoot = filesystem.ExtentTree().Root();

  // The leaf enters itself as a block of the subvolume, whose root item leads to it.
  Bytes item = EntryOf(extentRoot.generation);
  item.push_back(176);
  for (int i = 0; i < 8; ++i) item.push_back(static_cast<uint8_t>(id >> (8 * i)));
  filesystem.Device().Put(extentRoot.bytenr,
                          SealedLeaf(extentRoot.bytenr, extentRoot.generation, kExtentTreeId,
                                     {{{extentRoot.bytenr, kMetadataItemType, 0}, item}}));
  Bytes roots = filesystem.Device().Get(filesystem.RootTree().Root().bytenr);
  std::optional<TreeBlockView> view;
  ASSERT_EQ(nullptr, TreeBlockView::Parse(View(roots), &view));
  std::vector<Item> items;
  for (uint32_t slot = 0; slot < view->Count(); ++slot) {
    const ByteView data = view->DataAt(slot);
    items.push_back({view->KeyAt(slot), Bytes(data.Data(), data.Data() + data.Size())});
    if (view->KeyAt(slot).objectid != id) continue;
    ObjectAt<RootItem>(&items.back().second, 0).bytenr.Set(extentRoot.bytenr);
    ObjectAt<RootItem>(&items.back().second, 0).generation.Set(extentRoot.generation);
  }
  const GraphRoot rootTree = filesystem.RootTree().Root();
  filesystem.Device().Put(rootTree.bytenr,
                          SealedLeaf(rootTree.bytenr, rootTree.generation, 1, items));
  ExtentTreeScan scan;
  SizeResult result;
  const Status done = RunOn(filesystem, scan, Ask({id}), &result);
  ASSERT_TRUE(done.Ok()) << done.Text();  // a leaf without files, and nothing below it
  EXPECT_EQ(kNodeSize, result.table.Exclusive(0).metadata);
  EXPECT_EQ(0u, result.table.Exclusive(0).data);
}
