#include "tests/torture/live_blocks.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "base/unique_fd.h"
#include "engine/ondisk/checksum.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/keys.h"
#include "engine/ondisk/tree_block.h"
#include "tests/support/btrfs_ioctls.h"

namespace ZorvTest {
namespace {

using namespace ZorvEngine;

constexpr off_t kStep = 4096;
constexpr off_t kPrimarySuperblock = 64 << 10;

using Bytes = std::vector<uint8_t>;

void Fill(const UniqueFd& image, off_t offset, Bytes* bytes) {
  if (pread(image.Get(), bytes->data(), bytes->size(), offset) !=
      static_cast<ssize_t>(bytes->size()))
    throw std::runtime_error("an image is short");
}

// The blocks in the images, by place and generation, and the way from the roots to them.
class Search {
 public:
  Search(const std::vector<std::string>& images, size_t copies) : copies_(copies) {
    for (const std::string& image : images) images_.push_back(Open(image, O_RDONLY));
    Bytes bytes(sizeof(Superblock));
    Fill(images_[0], kPrimarySuperblock, &bytes);
    memcpy(&superblock_, bytes.data(), sizeof superblock_);
    for (size_t device = 0; device < images_.size(); ++device) Collect(device);
  }

  uint32_t NodeSize() const { return superblock_.nodeSize.Get(); }

  std::vector<LiveBlock> Live() {
    Follow(superblock_.chunkRoot.Get(), superblock_.chunkRootGeneration.Get(), kChunkTree);
    Follow(superblock_.root.Get(), superblock_.generation.Get(), kRootTree);
    return std::move(live_);
  }

 private:
  using Name = std::pair<uint64_t, uint64_t>;  // place and generation

  static constexpr uint64_t kRootTree = 1;
  static constexpr uint64_t kChunkTree = 3;

  void Collect(size_t device) {
    const int fd = images_[device].Get();
    Bytes bytes(NodeSize());
    for (off_t at = 0; (at = lseek(fd, at, SEEK_DATA)) >= 0;) {
      const off_t end = lseek(fd, at, SEEK_HOLE);
      for (at -= at % kStep; at < end; at += kStep) Consider(device, at, &bytes);
    }
  }

  void Consider(size_t device, off_t at, Bytes* bytes) {
    if (pread(images_[device].Get(), bytes->data(), bytes->size(), at) !=
        static_cast<ssize_t>(bytes->size()))
      return;
    const ByteView raw(bytes->data(), bytes->size());
    const BlockHeader& header = *raw.At<BlockHeader>(0);
    if (memcmp(header.fsid, superblock_.fsid, kUuidSize) != 0 ||
        !HasValidChecksum(superblock_.checksumType.Get(), raw) || at == kPrimarySuperblock)
      return;
    found_[{header.bytenr.Get(), header.generation.Get()}].push_back(
        {device, static_cast<uint64_t>(at)});
  }

  // Notes a block and all below it.
  void Follow(uint64_t bytenr, uint64_t generation, uint64_t tree) {
    const auto found = found_.find({bytenr, generation});
    if (found == found_.end() || found->second.size() < copies_)
      throw std::runtime_error("tree block " + std::to_string(bytenr) + " is not in the images");
    if (!seen_.insert({bytenr, generation}).second) return;
    Bytes bytes(NodeSize());
    Fill(images_[found->second[0].device], static_cast<off_t>(found->second[0].offset), &bytes);
    std::optional<TreeBlockView> view;
    if (TreeBlockView::Parse(ByteView(bytes.data(), bytes.size()), &view) != nullptr)
      throw std::runtime_error("tree block " + std::to_string(bytenr) + " is damaged");
    live_.push_back({bytenr, generation, view->Level(), tree, found->second});
    for (uint32_t slot = 0; slot < view->Count(); ++slot) {
      if (view->Level() > 0)
        Follow(view->PointerAt(slot).bytenr.Get(), view->PointerAt(slot).generation.Get(), tree);
      else if (tree == kRootTree)
        FollowRootItem(view->KeyAt(slot), view->DataAt(slot));
    }
  }

  void FollowRootItem(const Key& key, const ByteView& data) {
    const bool wanted = key.objectid == kExtentTreeId || IsSubvolumeId(key.objectid);
    if (key.type != kRootItemType || !wanted) return;
    const RootItem* item = data.At<RootItem>(0);
    if (item != nullptr) Follow(item->bytenr.Get(), item->generation.Get(), key.objectid);
  }

  const size_t copies_;
  std::vector<UniqueFd> images_;
  Superblock superblock_;
  std::map<Name, std::vector<LiveBlock::Copy>> found_;
  std::set<Name> seen_;
  std::vector<LiveBlock> live_;
};

}  // namespace

std::vector<LiveBlock> FindLiveBlocks(const std::vector<std::string>& images, size_t copies,
                                      uint32_t* nodeSize) {
  Search search(images, copies);
  *nodeSize = search.NodeSize();
  return search.Live();
}

}  // namespace ZorvTest
