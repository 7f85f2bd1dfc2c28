#include "engine/size/folder_sums.h"

#include <algorithm>
#include <numeric>
#include <span>

#include "engine/ondisk/keys.h"
#include "engine/size/inode_names.h"

namespace ZorvEngine {
namespace {

constexpr uint32_t kUnknown = UINT32_MAX;

Status DamagedFolder(uint64_t inode, const char* what) {
  return Status::Failed("the directory with inode " + std::to_string(inode) + " " + what +
                        "; run btrfs scrub and btrfs check");
}

bool IsInode(uint64_t number) { return number >= kFirstInode && number <= kLastFreeId; }

// The first `most` of `numbers` by `before`, in this order.
template <typename Before>
std::vector<uint32_t> FirstOf(BigArray<uint32_t>* numbers, size_t most, const Before& before) {
  const size_t count = std::min(most, numbers->Size());
  std::partial_sort(numbers->begin(), numbers->begin() + count, numbers->end(), before);
  return {numbers->begin(), numbers->begin() + count};
}

}  // namespace

Status FolderSums::AddUp(BlockReader& reader, const BlockPointer& root,
                         const BigArray<OwnFile>& files, FileSum* unlinked) {
  folders_.Add({kFirstInode, kFirstInode, {}, 0});
  numbers_.Set(kFirstInode, 0);
  for (const OwnFile& file : files)
    if (file.parent != kNoParent) ENGINE_TRY(AddFolder(file.parent));
  ENGINE_TRY(FindFolders(reader, root));
  ENGINE_TRY(FindDepths());

  for (const OwnFile& file : files) {
    if (file.parent == kNoParent) {
      *unlinked += {1, file.bytes};
      continue;
    }
    folders_[*numbers_.Find(file.parent)].sum += {1, file.bytes};
  }
  AddUpwards();
  return Status();
}

Status FolderSums::AddFolder(uint64_t inode) {
  if (!IsInode(inode)) return DamagedFolder(inode, "has an impossible number");
  if (numbers_.Find(inode)) return Status();
  numbers_.Set(inode, static_cast<uint32_t>(folders_.Size()));
  folders_.Add({inode, kNoParent, {}, kUnknown});
  return Status();
}

// One level after the other: the folders above those that the last round has found.
Status FolderSums::FindFolders(BlockReader& reader, const BlockPointer& root) {
  for (size_t begin = 1, end = folders_.Size(); begin < end; begin = end, end = folders_.Size()) {
    BigArray<uint64_t> inodes(memory_);
    for (size_t i = begin; i < end; ++i) inodes.Add(folders_[i].inode);
    std::sort(inodes.begin(), inodes.end());
    ENGINE_TRY(VisitNamesOf(reader, root, {inodes.begin(), inodes.Size()},
                            [&](uint64_t inode, const FileName& name) {
                              Folder& folder = folders_[*numbers_.Find(inode)];
                              folder.parent = std::min(folder.parent, name.parent);
                            }));
    for (size_t i = begin; i < end; ++i) {
      if (folders_[i].parent == kNoParent) return DamagedFolder(folders_[i].inode, "has no name");
      ENGINE_TRY(AddFolder(folders_[i].parent));
    }
  }
  return Status();
}

Status FolderSums::FindDepths() {
  std::vector<uint32_t> way;
  for (uint32_t i = 0; i < folders_.Size(); ++i) {
    way.clear();
    for (uint32_t at = i; folders_[at].depth == kUnknown;
         at = *numbers_.Find(folders_[at].parent)) {
      if (way.size() == folders_.Size()) return DamagedFolder(folders_[i].inode, "lies in itself");
      way.push_back(at);
    }
    for (; !way.empty(); way.pop_back()) {
      Folder& folder = folders_[way.back()];
      folder.depth = folders_[*numbers_.Find(folder.parent)].depth + 1;
    }
  }
  return Status();
}

// Adds each folder to the one above, the deepest first.
void FolderSums::AddUpwards() {
  BigArray<uint32_t> order(memory_);
  order.GrowTo(folders_.Size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(),
            [&](uint32_t a, uint32_t b) { return folders_[a].depth > folders_[b].depth; });
  for (const uint32_t number : order) {
    const Folder& folder = folders_[number];
    if (folder.depth == 0) continue;
    folders_[*numbers_.Find(folder.parent)].sum += folder.sum;
  }
}

Status FolderSums::List(BlockReader& reader, const BlockPointer& root,
                        const BigArray<OwnFile>& files, const FileListing& listing,
                        FileReport* out) {
  const std::vector<uint32_t> largestFiles = LargestFiles(files, listing.most);
  const std::vector<uint32_t> largestFolders = LargestFolders(listing);
  std::vector<uint64_t> inodes;
  for (const uint32_t number : largestFiles) {
    if (files[number].parent == kNoParent) continue;
    inodes.push_back(files[number].inode);
    AddInodesUpTo(files[number].parent, &inodes);
  }
  for (const uint32_t number : largestFolders) AddInodesUpTo(folders_[number].inode, &inodes);
  ENGINE_TRY(FindNames(reader, root, std::move(inodes), files));

  for (const uint32_t number : largestFiles) {
    const OwnFile& file = files[number];
    out->largest.push_back({{file.inode, file.bytes, file.sharedBytes, file.sharers, file.names},
                            file.parent == kNoParent ? "" : PathOf(file.inode)});
  }
  for (const uint32_t number : largestFolders) {
    const Folder& folder = folders_[number];
    out->folders.push_back({folder.sum, PathOf(folder.inode)});
  }
  return Status();
}

std::vector<uint32_t> FolderSums::LargestFiles(const BigArray<OwnFile>& files, size_t most) {
  BigArray<uint32_t> numbers(memory_);
  numbers.GrowTo(files.Size());
  std::iota(numbers.begin(), numbers.end(), 0);
  return FirstOf(&numbers, most, [&](uint32_t a, uint32_t b) {
    return files[a].bytes != files[b].bytes ? files[a].bytes > files[b].bytes : a < b;
  });
}

// Those of the listing's depth, without the root.
std::vector<uint32_t> FolderSums::LargestFolders(const FileListing& listing) {
  BigArray<uint32_t> numbers(memory_);
  for (uint32_t i = 1; i < folders_.Size(); ++i)
    if (folders_[i].depth <= listing.depth) numbers.Add(i);
  return FirstOf(&numbers, listing.most, [&](uint32_t a, uint32_t b) {
    const Folder& first = folders_[a];
    const Folder& second = folders_[b];
    return first.sum.bytes != second.sum.bytes ? first.sum.bytes > second.sum.bytes
                                               : first.inode < second.inode;
  });
}

// Adds a folder and those above it, without the root.
void FolderSums::AddInodesUpTo(uint64_t inode, std::vector<uint64_t>* inodes) const {
  for (; inode != kFirstInode; inode = folders_[*numbers_.Find(inode)].parent)
    inodes->push_back(inode);
}

// Of several names in the first directory the one that comes first in order of bytes.
Status FolderSums::FindNames(BlockReader& reader, const BlockPointer& root,
                             std::vector<uint64_t> inodes, const BigArray<OwnFile>& files) {
  std::ranges::sort(inodes);
  inodes.erase(std::unique(inodes.begin(), inodes.end()), inodes.end());
  const auto parentOf = [&](uint64_t inode) {
    if (const std::optional<uint32_t> number = numbers_.Find(inode))
      return folders_[*number].parent;
    return std::ranges::lower_bound(files.begin(), files.end(), inode, {}, &OwnFile::inode)->parent;
  };
  return VisitNamesOf(reader, root, inodes, [&](uint64_t inode, const FileName& name) {
    if (name.parent != parentOf(inode)) return;
    const auto [at, isNew] = names_.try_emplace(inode, Name{name.parent, std::string(name.name)});
    if (!isNew && name.name < at->second.text) at->second.text = name.name;
  });
}

std::string FolderSums::PathOf(uint64_t inode) const {
  std::string path;
  for (; inode != kFirstInode; inode = names_.at(inode).parent)
    path.insert(0, path.empty() ? names_.at(inode).text : names_.at(inode).text + "/");
  return path;
}

}  // namespace ZorvEngine
