// A whole file system in memory whose subvolumes are GraphTrees: what a commit puts on the device,
// and a state source that can have commits come between reads.
#ifndef TESTS_ENGINE_GRAPH_FILESYSTEM_H_
#define TESTS_ENGINE_GRAPH_FILESYSTEM_H_

#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "engine/io/state_source.h"
#include "tests/engine/blocks.h"
#include "tests/engine/graph_trees.h"

namespace ZorvTest {

// A device that has what was put on it; zeros elsewhere.
class SparseDevice : public ZorvEngine::ByteSource {
 public:
  ZorvEngine::Status ReadAt(uint64_t offset, uint8_t* buffer, size_t size) override;
  uint64_t Size() const override { return 1ULL << 40; }

  void Put(uint64_t offset, const Bytes& block);
  Bytes Get(uint64_t offset) const { return blocks_.at(offset); }
  std::vector<uint64_t> Places() const;

  // Has `call` called before a read, once after each `reads` reads.  It may put blocks.
  void CallEvery(int reads, std::function<void()> call);
  int Reads() const { return reads_; }

 private:
  std::recursive_mutex mutex_;
  std::unordered_map<uint64_t, Bytes> blocks_;
  std::function<void()> call_;
  int every_ = 0;
  int reads_ = 0;
};

// A tree of items that keeps the blocks which a commit does not change.
class KeptTree {
 public:
  KeptTree(uint64_t owner, size_t itemsPerLeaf, size_t width)
      : owner_(owner), itemsPerLeaf_(itemsPerLeaf), width_(width) {}

  // Makes the tree say `items`, sorted, in new places for what has changed.
  void Write(const std::vector<Item>& items, GraphTrees* places, SparseDevice* device);

  const GraphRoot& Root() const { return root_; }
  size_t Leaves() const { return levels_.empty() ? 0 : levels_[0].size(); }
  size_t Blocks() const;
  std::vector<uint64_t> Places() const;

 private:
  struct Entry {
    ZorvEngine::Key first;
    uint64_t bytenr;
    uint64_t generation;
    std::vector<Item> items;                               // of a leaf
    std::vector<std::tuple<uint64_t, uint64_t>> children;  // of a node
  };

  std::vector<std::vector<Item>> Cut(const std::vector<Item>& items) const;

  const uint64_t owner_;
  const size_t itemsPerLeaf_;
  const size_t width_;  // children of a node at most
  std::vector<std::vector<Entry>> levels_;
  GraphRoot root_{};
};

// How a file system is laid out.
struct GraphShape {
  bool mixed = false;        // tree blocks and data in the same chunks
  bool skinny = true;        // tree blocks under metadata items
  size_t inlineRefs = 3;     // of one extent, at most
  size_t itemsPerLeaf = 12;  // of the extent tree
  size_t width = 5;          // children of a node of the extent tree
  static GraphShape Random(unsigned seed);
};

class GraphFilesystem : public ZorvEngine::StateSource {
 public:
  explicit GraphFilesystem(unsigned seed, const GraphShape& shape = {});

  GraphTrees& Trees() { return trees_; }
  const GraphTrees& Trees() const { return trees_; }
  SparseDevice& Device() { return *device_; }
  const KeptTree& ExtentTree() const { return extentTree_; }
  const KeptTree& RootTree() const { return rootTree_; }

  // Puts the open transaction on the device, its superblock last.
  void Commit();

  // What the trees of a committed generation held.
  const HolderSums& HoldersAt(uint64_t generation) const { return holders_.at(generation); }
  uint64_t LastGeneration() const { return superblock_.generation.Get(); }

  // Changes subvolumes, snapshots and relocation trees at random, `steps` times; never deletes one
  // of `kept`, and makes at most `most`.
  void Change(std::mt19937* random, int steps, size_t most, const std::set<uint64_t>& kept = {});

  const ZorvEngine::DeviceSet& Devices() const override { return devices_; }
  ZorvEngine::Status CommitAndReadSuperblock(ZorvEngine::Superblock* out,
                                             std::string* note) override;
  ZorvEngine::Status ReadSuperblock(ZorvEngine::Superblock* out) override;

 private:
  void PutTrees();
  std::vector<Item> ExtentItems() const;
  std::vector<Item> RootItems() const;
  void PutChunks();

  const GraphShape shape_;
  ZorvEngine::DeviceSet devices_;
  SparseDevice* device_;
  GraphTrees trees_;
  KeptTree extentTree_;
  KeptTree rootTree_;
  ZorvEngine::Superblock superblock_{};
  std::map<uint64_t, HolderSums> holders_;
};

// A sealed leaf or node of any tree.
Bytes SealedLeaf(uint64_t bytenr, uint64_t generation, uint64_t owner,
                 const std::vector<Item>& items);

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_GRAPH_FILESYSTEM_H_
