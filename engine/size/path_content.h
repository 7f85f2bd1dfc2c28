// path_content.h: what a path of one subvolume leads to, and the data that it refers to.
#ifndef ENGINE_SIZE_PATH_CONTENT_H_
#define ENGINE_SIZE_PATH_CONTENT_H_

#include <string>

#include "engine/io/array_memory.h"
#include "engine/io/block_reader.h"
#include "engine/ondisk/hashes.h"
#include "engine/size/holder_report.h"

namespace ZorvEngine {

// A data extent.
struct DataExtent {
  uint64_t bytenr;
  uint64_t bytes;

  auto operator<=>(const DataExtent&) const = default;
};

struct PathContent {
  enum Kind { kFound, kNotThere, kNested };

  // The memory is the caller's and outlives the object.
  explicit PathContent(ArrayMemory& memory) : extents(memory) {}

  Kind kind = kNotThere;
  VersionNumbers numbers;
  BigArray<DataExtent> extents;  // by rising addresses, each once
  Hash256 hash{};                // of all that makes a version
};

// Reads what `path` (from the subvolume's root; names with slashes between them) is in the tree at
// `root`: a file, or a directory with everything below it but nested subvolumes.  Symbolic links
// are what they are.  Throws NoArrayMemory.
Status ReadPathContent(BlockReader& reader, const BlockPointer& root, const std::string& path,
                       ArrayMemory& memory, PathContent* out);

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_PATH_CONTENT_H_
