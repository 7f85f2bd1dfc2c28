#include "engine/io/live_subvolumes.h"

#include "engine/io/ioctls.h"
#include "engine/ondisk/keys.h"

namespace ZorvEngine {
namespace {

// Subvolumes inside each other beyond this are not followed.
constexpr int kMostDepth = 256;

}  // namespace

std::optional<std::string> LiveSubvolumes::PathOf(uint64_t id) { return PathOf(id, 0); }

bool LiveSubvolumes::IsGone(uint64_t id) const {
  SubvolumePlace place(id);
  return id != kTopLevelTreeId && place.Run(fd_) == 0 && !place.Found();
}

std::optional<std::string> LiveSubvolumes::PathOf(uint64_t id, int depth) {
  if (id == kTopLevelTreeId) return "";
  SubvolumePlace place(id);
  if (depth > kMostDepth || place.Run(fd_) != 0 || !place.Found()) return std::nullopt;
  const std::optional<std::string> directory =
      DirectoryOf(place.Parent(), place.Directory(), depth);
  if (!directory) return std::nullopt;
  return *directory + place.Name();
}

// The path of a directory with a slash behind it; empty for the root of the top level.
std::optional<std::string> LiveSubvolumes::DirectoryOf(uint64_t parent, uint64_t inode, int depth) {
  const auto known = directories_.find({parent, inode});
  if (known != directories_.end()) return known->second;

  std::optional<std::string> path = PathOf(parent, depth + 1);
  DirectoryPath within(parent, inode);
  if (!path || within.Run(fd_) != 0) return std::nullopt;
  if (!path->empty()) *path += '/';
  *path += within.Path();
  directories_[{parent, inode}] = *path;
  return path;
}

}  // namespace ZorvEngine
