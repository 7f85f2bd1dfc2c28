#include "cli/room.h"

#include <fmt/format.h>
#include <sys/statvfs.h>

#include "base/paths.h"

namespace ZorvSnapUsage {
namespace {

using namespace ZorvBtrfsUsage;

constexpr const char* kRoots[] = {kLockDir, kRunDir, kPersistentDir};

std::string Above(const std::string& path) { return path.substr(0, path.rfind('/')); }

// The file system of a root; of the directory above it when it could not be made.
bool Measure(const char* root, struct statvfs* fileSystem) {
  return statvfs(root, fileSystem) == 0 || statvfs(Above(root).c_str(), fileSystem) == 0;
}

// A file system that counts none has no limit of them.
bool HasNoFileLeft(const struct statvfs& fileSystem) {
  return fileSystem.f_files != 0 && fileSystem.f_ffree == 0;
}

// Locks are empty files, and need no block.
bool HasNoBlockLeft(const struct statvfs& fileSystem, const char* root) {
  return root != kLockDir && fileSystem.f_blocks != 0 && fileSystem.f_bfree == 0;
}

}  // namespace

std::string NextWhereFull() {
  for (const char* root : kRoots) {
    struct statvfs fileSystem;
    if (!Measure(root, &fileSystem)) continue;
    if (HasNoFileLeft(fileSystem))
      return fmt::format(
          "no file can be made in {} any more, all inodes of its file system are used: see whose "
          "files they are (find {} -xdev -printf '%u\\n' | sort | uniq -c), and remove them",
          root, Above(root));
    if (HasNoBlockLeft(fileSystem, root))
      return fmt::format("the file system of {} is full: make room on it", root);
  }
  return "";
}

}  // namespace ZorvSnapUsage
