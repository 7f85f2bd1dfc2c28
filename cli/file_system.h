// Which file system a path lies on, and in which state that is.
#ifndef CLI_FILE_SYSTEM_H_
#define CLI_FILE_SYSTEM_H_

#include <time.h>

#include <optional>
#include <string>

namespace ZorvSnapUsage {

struct FileSystemState {
  std::string id;  // lower-case hexadecimal digits with dashes
  // Of the change that is being collected, or else of the last one that was committed: as long as
  // it stays the same, a state that has been committed with this number is the newest.
  unsigned long long generation = 0;
};

// Nothing when the path is not there or not on btrfs, or when the kernel does not say it (before
// Linux 5.10).
std::optional<FileSystemState> StateOfFileSystem(const std::string& path);

// Whether the file system that the path lies on is only read from, by all of its mounts: nothing
// that was begun on it goes on then. False when the kernel does not say it (before Linux 5.8).
bool IsOnlyReadFrom(const std::string& path);

// Whether the file system that the path lies on has a subvolume of this ID that is not deleted;
// false when it does not say.
bool HasSubvolume(const std::string& path, unsigned long long subvolumeID);

// Whether the path is the root of a mount; false when the kernel does not say it (before
// Linux 5.8).
bool IsMounted(const std::string& path);

// When the subvolume at the path was made, as its file system says; nothing when it does not.
std::optional<time_t> CreationTime(const std::string& path);

}  // namespace ZorvSnapUsage

#endif  // CLI_FILE_SYSTEM_H_
