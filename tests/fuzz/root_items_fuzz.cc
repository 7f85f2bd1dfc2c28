// A root tree whose items are any bytes: each is an object number (8 bytes), a type (1 byte), an
// offset (8 bytes), a length (2 bytes) and that many bytes.
#include <map>

#include "engine/io/committed_trees.h"
#include "tests/engine/mini_filesystem.h"
#include "tests/fuzz/target.h"

using namespace ZorvTest;
using namespace ZorvEngine;

namespace {

constexpr size_t kRoomForItems = 3500;

// The items in key order, as many as a block has room for.
std::vector<Item> ItemsOf(FuzzInput input) {
  std::map<Key, Bytes> items;
  size_t taken = 0;
  while (!input.AtEnd()) {
    Key key;
    key.objectid = input.Number(8);
    key.type = static_cast<uint8_t>(input.Number(1));
    key.offset = input.Number(8);
    const size_t size = input.Number(2);
    const std::string_view data = input.Bytes(size);
    taken += sizeof(LeafItem) + data.size();
    if (taken > kRoomForItems) break;
    items[key] = Bytes(data.begin(), data.end());
  }
  return {items.begin(), items.end()};
}

// A failure of the trees that names a block, a tree or a subvolume, or says that there is no tree.
void ExpectReason(const Status& failed) {
  FUZZ_LAW(failed.Ok() || failed.Text().find_first_of("0123456789") != std::string::npos ||
           failed.Text() == "the file system has no extent tree");
}

}  // namespace

FUZZ_TARGET(root_items) {
  static MiniFilesystem filesystem;
  static const bool written = (filesystem.Write(), true);
  FUZZ_LAW(written);
  std::vector<Item> items = ItemsOf(FuzzInput(input));
  filesystem.PutLeaf(MiniFilesystem::kRootTree, &items);

  ReadMeter meter;
  BlockReader reader(filesystem.Devices(), {kNodeSize, 0}, meter);
  CommittedTrees trees(reader);
  const Superblock superblock = filesystem.MakeSuperblock();
  const Status loaded = trees.Load(superblock);
  ExpectReason(loaded);
  if (!loaded.Ok()) return;
  for (const uint64_t id : {uint64_t{5}, uint64_t{257}, kLastFreeId}) {
    CommittedTrees::Subvolume subvolume;
    const Status found = trees.FindAskedSubvolume(id, &subvolume);
    ExpectReason(found);
    FUZZ_LAW(!found.Ok() || (subvolume.root.level <= kMaxLevel && !subvolume.beingDeleted));
  }
  bool found = false;
  ExpectReason(trees.FindDeletion(&found));
  ExpectReason(trees.FindMovingData(&found));
  (void)trees.CheckSettled();
}
