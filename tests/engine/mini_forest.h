// File systems in memory whose subvolumes share tree blocks and extents at random, and what a brute
// count of their holders says.
#ifndef TESTS_ENGINE_MINI_FOREST_H_
#define TESTS_ENGINE_MINI_FOREST_H_

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "engine/size/size_table.h"
#include "tests/engine/mini_filesystem.h"

namespace ZorvTest {

// Subvolumes as trees of up to three levels over one pool of blocks.  The extent tree says how
// often each block and extent is referenced, and no more; it has three levels itself.
class MiniForest {
 public:
  // The subvolumes' numbers are kFirstId and those that follow.
  static constexpr uint64_t kFirstId = 300;
  static constexpr uint64_t kExtentBytes = 12288;

  MiniForest(unsigned seed, size_t subvolumes) : random_(seed) {
    for (int i = 0; i < 60; ++i) MakeLeafBlock();
    for (int i = 0; i < 25; ++i) MakeNodeBlock(1);
    for (int i = 0; i < 10; ++i) MakeNodeBlock(2);
    for (size_t i = 0; i < subvolumes; ++i) MakeSubvolume();
    Write();
  }

  MiniFilesystem& Filesystem() { return mini_; }

  // Blocks of the extent tree.
  uint64_t ExtentTreeBlocks() const { return extentTreeBlocks_; }

  // What each set of the subvolumes `ids` holds that nobody else holds, by their positions.
  std::map<std::vector<uint32_t>, ZorvEngine::HeldBytes> BruteCount(
      const std::vector<uint64_t>& ids) const {
    std::map<uint64_t, std::set<uint64_t>> holdersOfBlocks, holdersOfData;
    for (const auto& [id, root] : subvolumes_) Visit(root, id, &holdersOfBlocks, &holdersOfData);

    std::map<std::vector<uint32_t>, ZorvEngine::HeldBytes> sums;
    const auto add = [&](const std::set<uint64_t>& holders, ZorvEngine::HeldBytes bytes) {
      std::vector<uint32_t> positions;
      for (uint32_t at = 0; at < ids.size(); ++at)
        if (holders.count(ids[at]) != 0) positions.push_back(at);
      if (positions.size() == holders.size()) sums[positions] += bytes;
    };
    for (const auto& [bytenr, holders] : holdersOfBlocks) add(holders, {0, kNodeSize});
    for (const auto& [bytenr, holders] : holdersOfData) add(holders, {kExtentBytes, 0});
    return sums;
  }

 private:
  struct Block {
    uint64_t bytenr;
    uint8_t level;
    ZorvEngine::Key first;
    std::vector<size_t> children;  // of nodes: indices of blocks
    std::vector<uint64_t> data;    // of leaves: one for each reference
  };

  size_t Below(size_t end) { return random_() % end; }

  uint64_t NextPlace() {
    const uint64_t place = nextPlace_;
    nextPlace_ += kNodeSize;
    return place;
  }

  // Each leaf has an inode of its own, so that any leaves can stand in one tree.
  void MakeLeafBlock() {
    Block leaf{NextPlace(), 0, {1000 + blocks_.size(), ZorvEngine::kFileExtentType, 0}, {}, {}};
    const size_t references = 1 + Below(6);
    for (size_t i = 0; i < references; ++i) leaf.data.push_back(4096 * (1 + Below(150)));
    Put(std::move(leaf));
  }

  // The children of a node begin with different keys, as those of real nodes do.
  void MakeNodeBlock(uint8_t level) {
    std::map<ZorvEngine::Key, size_t> children;
    const std::vector<size_t>& pool = byLevel_[level - 1];
    const size_t count = 1 + Below(5);
    for (size_t i = 0; i < count; ++i) {
      const size_t child = pool[Below(pool.size())];
      children.emplace(blocks_[child].first, child);
    }
    Block node{NextPlace(), level, children.begin()->first, {}, {}};
    for (const auto& [key, child] : children) node.children.push_back(child);
    Put(std::move(node));
  }

  // A root is no other tree's block; one in four is a leaf or a node of the lower level.
  void MakeSubvolume() {
    const auto level = static_cast<uint8_t>(Below(4) == 0 ? Below(2) : 2);
    if (level == 0)
      MakeLeafBlock();
    else
      MakeNodeBlock(level);
    byLevel_[level].pop_back();
    subvolumes_[kFirstId + subvolumes_.size()] = blocks_.size() - 1;
  }

  void Put(Block block) {
    byLevel_[block.level].push_back(blocks_.size());
    blocks_.push_back(std::move(block));
  }

  void Visit(size_t index, uint64_t id, std::map<uint64_t, std::set<uint64_t>>* blocks,
             std::map<uint64_t, std::set<uint64_t>>* data) const {
    const Block& block = blocks_[index];
    (*blocks)[block.bytenr].insert(id);
    for (const uint64_t bytenr : block.data) (*data)[bytenr].insert(id);
    for (const size_t child : block.children) Visit(child, id, blocks, data);
  }

  void Write() {
    std::map<size_t, uint64_t> refsOfBlocks;
    std::map<uint64_t, uint64_t> refsOfData;
    std::vector<size_t> toEnter;
    const auto refer = [&](size_t index) {
      if (++refsOfBlocks[index] == 1) toEnter.push_back(index);
    };
    for (const auto& [id, root] : subvolumes_) {
      refer(root);
      mini_.AddRoot(id, blocks_[root].bytenr, 1, blocks_[root].level);
    }
    while (!toEnter.empty()) {
      const Block& block = blocks_[toEnter.back()];
      toEnter.pop_back();
      for (const size_t child : block.children) refer(child);
      for (const uint64_t bytenr : block.data) ++refsOfData[bytenr];
      WriteBlock(block);
    }

    for (const auto& [index, refs] : refsOfBlocks)
      mini_.AddTreeExtent(blocks_[index].bytenr, refs, blocks_[index].level);
    for (const auto& [bytenr, refs] : refsOfData) mini_.AddDataExtent(bytenr, kExtentBytes, refs);
    WriteExtentTree();
  }

  void WriteBlock(const Block& block) {
    if (block.level > 0) {
      std::vector<Child> children;
      for (const size_t child : block.children)
        children.push_back({blocks_[child].first, blocks_[child].bytenr});
      mini_.Memory().Put(block.bytenr, MakeNode(block.bytenr, block.level, children));
      return;
    }
    std::vector<Item> items;
    for (const uint64_t bytenr : block.data) {
      items.push_back(MiniFilesystem::FileExtent(block.first.objectid, 4096 * items.size(), bytenr,
                                                 ZorvEngine::kFileExtentRegular));
    }
    mini_.PutLeaf(block.bytenr, &items);
  }

  // Few items in each block, so that look-ups have somewhere to go.
  void WriteExtentTree() {
    constexpr size_t kWidth = 9;
    mini_.Write();
    std::vector<Item>& items = mini_.Extents();
    std::vector<Child> level;
    for (size_t at = 0; at < items.size(); at += kWidth) {
      const auto first = items.begin() + static_cast<long>(at);
      std::vector<Item> some(first, first + static_cast<long>(std::min(kWidth, items.size() - at)));
      level.push_back({some[0].first, NextPlace()});
      mini_.PutLeaf(level.back().bytenr, &some);
    }
    extentTreeBlocks_ = level.size();
    uint8_t height = 0;
    while (level.size() > 1) {
      ++height;
      std::vector<Child> above;
      for (size_t at = 0; at < level.size(); at += kWidth) {
        const auto first = level.begin() + static_cast<long>(at);
        above.push_back({first->key, NextPlace()});
        mini_.Memory().Put(
            above.back().bytenr,
            MakeNode(above.back().bytenr, height,
                     {first, first + static_cast<long>(std::min(kWidth, level.size() - at))}));
      }
      extentTreeBlocks_ += above.size();
      level = std::move(above);
    }
    mini_.SetExtentTree(level[0].bytenr, height, extentTreeBlocks_ * kNodeSize);
  }

  std::mt19937 random_;
  MiniFilesystem mini_;
  uint64_t nextPlace_ = MiniFilesystem::kSubvolume + kNodeSize;
  std::vector<Block> blocks_;
  std::vector<size_t> byLevel_[3];         // blocks that nodes may have as children
  std::map<uint64_t, size_t> subvolumes_;  // roots by number
  uint64_t extentTreeBlocks_ = 0;
};

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_MINI_FOREST_H_
