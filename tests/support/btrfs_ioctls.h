// What tests do to btrfs by system call, where a program for each change would take too long.
//
// Paths are full paths.  Everything throws std::system_error with the system's reason.
#ifndef TESTS_SUPPORT_BTRFS_IOCTLS_H_
#define TESTS_SUPPORT_BTRFS_IOCTLS_H_

#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <stdint.h>

#include <functional>
#include <string>

#include "base/unique_fd.h"

namespace ZorvTest {

// Opens or throws; `flags` as for open(2).
UniqueFd Open(const std::string& path, int flags);

void CreateSubvolume(const std::string& path);
void CreateSnapshot(const std::string& source, const std::string& path, bool readOnly);
void DestroySubvolume(const std::string& path);
void SetReadOnly(const std::string& subvolume, bool readOnly);

// ID of the subvolume that holds `path`.
uint64_t RootId(const std::string& path);

// A piece of a file; length 0 reaches to its end.
struct FileRange {
  std::string path;
  uint64_t offset = 0;
  uint64_t length = 0;
};

// Makes `target` (made when it is not there) share the bytes of `source` from `to` on.
void CloneRange(const FileRange& source, const std::string& target, uint64_t to = 0);

// Has the kernel share equal bytes of two files; returns how many bytes were, 0 when they differ.
uint64_t DedupeRange(const FileRange& source, const std::string& target, uint64_t to);

// Rewrites a file in larger extents, compressed (zstd) when asked.
void Defragment(const std::string& path, bool compress);

// Commits, and has the kernel begin to clean up deleted subvolumes.
void Commit(const std::string& mountPoint);

// Commits until no deleted subvolume is left and what they held is free.
void CommitAndClean(const std::string& mountPoint);

// Has each extent note from then on which subvolume wrote it first (simple quotas).
void EnableSimpleQuotas(const std::string& mountPoint);

// Ends quotas of any kind; nothing when there are none.
void DisableQuotas(const std::string& mountPoint);

// A quota group, and a member of it.  The kernel wants its numbers rescanned afterwards.
void CreateQuotaGroup(const UniqueFd& mountPoint, uint64_t group);
void AssignToQuotaGroup(const UniqueFd& mountPoint, uint64_t member, uint64_t group);

// Used bytes by kind of block groups, each byte once whatever the profile. Mixed groups are both.
struct SpaceUsed {
  uint64_t data = 0;
  uint64_t metadata = 0;
};
SpaceUsed UsedSpace(const std::string& mountPoint);

// One item of a tree as the kernel gives it out.
struct TreeItem {
  uint64_t objectId;
  uint32_t type;
  uint64_t offset;
  const char* data;
  uint32_t size;
};

// Shows all items of a tree of the mounted file system, in the order of their keys.
void ForEachItem(const std::string& mountPoint, uint64_t tree,
                 const std::function<void(const TreeItem&)>& visit);

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_BTRFS_IOCTLS_H_
