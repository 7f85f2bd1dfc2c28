// holder_report.h: which versions of a file there are, and who keeps their bytes.
#ifndef ENGINE_SIZE_HOLDER_REPORT_H_
#define ENGINE_SIZE_HOLDER_REPORT_H_

#include <cstdint>
#include <vector>

namespace ZorvEngine {

// What one version of a file is, or of a directory with all files below it.
struct VersionNumbers {
  uint64_t inode = 0;
  uint64_t generation = 0;   // in which the inode was made
  uint64_t files = 1;        // of a directory: files below it, each once
  uint64_t size = 0;         // of these together
  uint64_t bytes = 0;        // of the data extents that they refer to, each once and whole
  int64_t modified = 0;      // of the file or directory: seconds since the epoch,
  uint32_t nanoseconds = 0;  // and more
  uint32_t isDirectory = 0;
};

struct PathVersion {
  VersionNumbers numbers;
  std::vector<uint32_t> subvolumes;  // that have it: positions among those asked, rising
};

// Bytes to which versions refer, by who holds them.
struct HeldGroup {
  // Positions, rising: all who hold the bytes; when somebody outside does too, those whose version
  // refers to them.
  std::vector<uint32_t> subvolumes;
  bool outside = false;
  uint64_t extents = 0;
  uint64_t bytes = 0;
};

// A value: made by PathHolders, passed between processes, read by whoever prints it.
struct HolderReport {
  std::vector<PathVersion> versions;  // in the order in which the subvolumes were asked
  std::vector<uint32_t> without;      // where there is no such path
  std::vector<uint32_t> nested;       // of these, where it leads into another subvolume
  std::vector<HeldGroup> groups;      // the largest first, those held outside last
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_HOLDER_REPORT_H_
