// folder_sums.h: adds up files by the folders that they lie in, and finds their paths.
#ifndef ENGINE_SIZE_FOLDER_SUMS_H_
#define ENGINE_SIZE_FOLDER_SUMS_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "engine/io/array_memory.h"
#include "engine/io/block_reader.h"
#include "engine/size/address_map.h"
#include "engine/size/file_report.h"

namespace ZorvEngine {

// Parent of a file without a name.
constexpr uint64_t kNoParent = UINT64_MAX;

// A file with bytes.
struct OwnFile {
  uint64_t inode;
  uint64_t bytes;
  uint64_t sharedBytes;
  uint64_t parent;  // directory of its first name, or kNoParent
  uint32_t names;
  uint32_t sharers;
};

// The folders of one tree that lead to given files.
//
// Memory: 36 bytes for each folder, 32 to 64 in the index, 4 for each file and folder while they
// are put into order; and the names of what is listed, with those of the folders above.
class FolderSums {
 public:
  // The memory is the caller's and outlives the object.
  explicit FolderSums(ArrayMemory& memory) : memory_(memory), folders_(memory), numbers_(memory) {}

  // Finds the folders above `files` up to the root, and adds up what lies below each; `unlinked`
  // gets the files without a name.  Throws NoArrayMemory.
  Status AddUp(BlockReader& reader, const BlockPointer& root, const BigArray<OwnFile>& files,
               FileSum* unlinked);

  // After AddUp: fills the lists of `out`, the largest first.
  Status List(BlockReader& reader, const BlockPointer& root, const BigArray<OwnFile>& files,
              const FileListing& listing, FileReport* out);

 private:
  struct Folder {
    uint64_t inode;
    uint64_t parent;
    FileSum sum;     // in it and below it
    uint32_t depth;  // 0: the root
  };
  struct Name {
    uint64_t parent;
    std::string text;
  };

  Status AddFolder(uint64_t inode);
  Status FindFolders(BlockReader& reader, const BlockPointer& root);
  Status FindDepths();
  void AddUpwards();
  std::vector<uint32_t> LargestFiles(const BigArray<OwnFile>& files, size_t most);
  std::vector<uint32_t> LargestFolders(const FileListing& listing);
  void AddInodesUpTo(uint64_t inode, std::vector<uint64_t>* inodes) const;
  Status FindNames(BlockReader& reader, const BlockPointer& root, std::vector<uint64_t> inodes,
                   const BigArray<OwnFile>& files);
  std::string PathOf(uint64_t inode) const;

  ArrayMemory& memory_;
  BigArray<Folder> folders_;  // the root first
  AddressMap numbers_;        // of folders, by inode
  std::map<uint64_t, Name> names_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_FOLDER_SUMS_H_
