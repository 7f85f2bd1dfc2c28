#include "engine/size/exclusive_files.h"

#include <algorithm>
#include <optional>
#include <span>
#include <string>

#include "engine/io/leaf_search.h"
#include "engine/size/file_extents.h"
#include "engine/size/folder_sums.h"
#include "engine/size/inode_names.h"

namespace ZorvEngine {
namespace {

// A data extent that the subvolume holds alone.
struct OwnExtent {
  uint64_t bytenr;
  uint64_t bytes;
};

// A file that refers to one.
struct OwnReference {
  uint64_t bytenr;
  uint64_t inode;

  auto operator<=>(const OwnReference&) const = default;
};

// Notes what a run counts for its one subvolume.
class OwnBlocks : public ExtentWatch {
 public:
  explicit OwnBlocks(ArrayMemory& memory) : extents_(memory), blocks_(memory) {}

  void Begin() override {
    extents_.Clear();
    blocks_.Clear();
  }
  void TakeData(const HolderSets&, HolderId, uint64_t bytenr, uint64_t bytes) override {
    extents_.Add({bytenr, bytes});
  }
  void TakeTreeBlock(const HolderSets&, HolderId, uint64_t bytenr) override { blocks_.Add(bytenr); }

  void Sort() {
    std::ranges::sort(extents_.begin(), extents_.end(), {}, &OwnExtent::bytenr);
    std::ranges::sort(blocks_.begin(), blocks_.end());
  }

  // After Sort.
  bool HasBlock(uint64_t bytenr) const {
    return std::binary_search(blocks_.begin(), blocks_.end(), bytenr);
  }
  bool HasExtent(uint64_t bytenr) const {
    const OwnExtent* at =
        std::ranges::lower_bound(extents_.begin(), extents_.end(), bytenr, {}, &OwnExtent::bytenr);
    return at != extents_.end() && at->bytenr == bytenr;
  }
  const BigArray<OwnExtent>& Extents() const { return extents_; }

 private:
  BigArray<OwnExtent> extents_;
  BigArray<uint64_t> blocks_;
};

// Finds the files of one state.
class Finder {
 public:
  Finder(CommittedTrees& trees, const OwnBlocks& own, const FileListing& listing,
         ArrayMemory& memory)
      : trees_(trees),
        own_(own),
        listing_(listing),
        memory_(memory),
        references_(memory),
        files_(memory),
        folders_(memory) {}

  Status Run(uint64_t id, uint64_t bytes, FileReport* out) {
    CommittedTrees::Subvolume subvolume;
    ENGINE_TRY(trees_.FindAskedSubvolume(id, &subvolume));
    root_ = subvolume.root;
    ENGINE_TRY(FindReferences());
    FileReport report;
    ENGINE_TRY(AddUpFiles(bytes, &report.all));
    ENGINE_TRY(FindParents());
    ENGINE_TRY(folders_.AddUp(trees_.Reader(), root_, files_, &report.unlinked));
    ENGINE_TRY(folders_.List(trees_.Reader(), root_, files_, listing_, &report));
    *out = std::move(report);
    return Status();
  }

 private:
  // Reads the leaves that the subvolume holds alone.
  Status FindReferences() {
    const auto read = [&](const std::vector<TreeBlockRange>& leaves) {
      std::vector<BlockPointer> pointers;
      for (const TreeBlockRange& leaf : leaves) pointers.push_back(leaf.pointer);
      return trees_.Reader().ReadMany(pointers,
                                      [&](const TreeBlockView& leaf) { return TakeLeaf(leaf); });
    };
    const auto isOwn = [&](const TreeBlockRange& block) {
      return own_.HasBlock(block.pointer.bytenr);
    };
    ENGINE_TRY(LeafSearch(trees_.Reader(), read, isOwn).Run(root_));
    std::sort(references_.begin(), references_.end());
    return Status();
  }

  Status TakeLeaf(const TreeBlockView& leaf) {
    return VisitFileExtents(leaf, [&](const FileExtent& extent) {
      const OwnReference reference{extent.bytenr, extent.inode};
      const bool again = references_.Size() > 0 && *(references_.end() - 1) == reference;
      if (!again && own_.HasExtent(extent.bytenr)) references_.Add(reference);
    });
  }

  // Gives each extent to the first file that refers to it.
  Status AddUpFiles(uint64_t counted, FileSum* all) {
    const OwnReference* next = references_.begin();
    for (const OwnExtent& extent : own_.Extents()) {
      const OwnReference* const first = next;
      uint32_t sharers = 0;
      for (; next != references_.end() && next->bytenr == extent.bytenr; ++next)
        sharers += next == first || *next != *(next - 1) ? 1 : 0;
      if (sharers == 0) break;
      files_.Add(
          {first->inode, extent.bytes, sharers > 1 ? extent.bytes : 0, kNoParent, 0, sharers});
      all->bytes += extent.bytes;
    }
    references_.Clear();
    MergeFiles();
    all->files = files_.Size();
    return all->bytes == counted
               ? Status()
               : Status::Failed(
                     "the files found do not have all data that the subvolume holds alone; run "
                     "btrfs check, and report this when it finds nothing");
  }

  // Leaves one row for each file, rising.
  void MergeFiles() {
    std::ranges::sort(files_.begin(), files_.end(), {}, &OwnFile::inode);
    size_t kept = 0;
    for (const OwnFile& file : files_) {
      if (kept == 0 || files_[kept - 1].inode != file.inode) {
        files_[kept++] = file;
        continue;
      }
      OwnFile& same = files_[kept - 1];
      same.bytes += file.bytes;
      same.sharedBytes += file.sharedBytes;
      same.sharers = std::max(same.sharers, file.sharers);
    }
    files_.Shorten(kept);
  }

  // Of several names the first is the one in the directory with the lowest number.
  Status FindParents() {
    BigArray<uint64_t> inodes(memory_);
    for (const OwnFile& file : files_) inodes.Add(file.inode);
    return VisitNamesOf(trees_.Reader(), root_, {inodes.begin(), inodes.Size()},
                        [&](uint64_t inode, const FileName& name) {
                          OwnFile& file = *std::ranges::lower_bound(files_.begin(), files_.end(),
                                                                    inode, {}, &OwnFile::inode);
                          file.parent = std::min(file.parent, name.parent);
                          ++file.names;
                        });
  }

  CommittedTrees& trees_;
  const OwnBlocks& own_;
  const FileListing& listing_;
  ArrayMemory& memory_;
  BlockPointer root_;
  BigArray<OwnReference> references_;
  BigArray<OwnFile> files_;
  FolderSums folders_;
};

}  // namespace

Status ExclusiveFiles::Run(CommittedTrees& trees, const SizeRequest& request,
                           SizeProgress& progress, SizeTable* out) {
  try {
    ArrayMemory memory(request.mostArrayBytes);
    OwnBlocks own(memory);
    SizeRequest watched = request;
    watched.watch = &own;
    SizeTable table;
    ENGINE_TRY(count_.Run(trees, watched, progress, &table));

    const PhaseTimer timer(progress.stats, "files of what was counted");
    own.Sort();
    ENGINE_TRY(Finder(trees, own, listing_, memory)
                   .Run(request.ids.front(), table.Exclusive(0).data, &report_));
    *out = std::move(table);
    return Status();
  } catch (const NoArrayMemory& error) {
    return Status::Failed(error.what());
  }
}

}  // namespace ZorvEngine
