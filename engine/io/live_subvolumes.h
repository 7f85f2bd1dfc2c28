// live_subvolumes.h: where subvolumes are at this moment, committed or not.
#ifndef ENGINE_IO_LIVE_SUBVOLUMES_H_
#define ENGINE_IO_LIVE_SUBVOLUMES_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace ZorvEngine {

// Asks the kernel about the subvolumes of a mounted file system.  What it says belongs to no
// committed state: good for messages, never for numbers.
class LiveSubvolumes {
 public:
  // `fd` is a descriptor of any directory of the file system, and the caller's.
  explicit LiveSubvolumes(int fd) : fd_(fd) {}

  // The path from the file system's top level.  Nothing when there is no such subvolume, when it is
  // deleted (also while its blocks are still being freed), and when the kernel does not say.
  std::optional<std::string> PathOf(uint64_t id);

  // Whether there is for sure no such subvolume, or it is deleted.
  bool IsGone(uint64_t id) const;

 private:
  std::optional<std::string> PathOf(uint64_t id, int depth);
  std::optional<std::string> DirectoryOf(uint64_t parent, uint64_t inode, int depth);

  const int fd_;
  // Paths of directories, by subvolume and inode: snapshots mostly lie side by side.
  std::map<std::pair<uint64_t, uint64_t>, std::string> directories_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_LIVE_SUBVOLUMES_H_
