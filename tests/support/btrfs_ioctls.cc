#include "tests/support/btrfs_ioctls.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <string.h>
#include <sys/ioctl.h>

#include <filesystem>
#include <system_error>
#include <vector>

#include "tests/support/command.h"

namespace ZorvTest {
namespace {

void Must(int result, const std::string& what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
}

UniqueFd OpenParent(const std::string& path) {
  return Open(std::filesystem::path(path).parent_path(), O_RDONLY | O_DIRECTORY);
}

btrfs_ioctl_vol_args_v2 Named(const std::string& path) {
  btrfs_ioctl_vol_args_v2 args{};
  strncpy(args.name, std::filesystem::path(path).filename().c_str(), sizeof args.name - 1);
  return args;
}

bool HasDeletedSubvolumes(const std::string& mountPoint) {
  bool found = false;
  ForEachItem(mountPoint, BTRFS_ROOT_TREE_OBJECTID, [&](const TreeItem& item) {
    found |= item.objectId == BTRFS_ORPHAN_OBJECTID && item.type == BTRFS_ORPHAN_ITEM_KEY;
  });
  return found;
}

// BTRFS_QUOTA_CTL_ENABLE_SIMPLE_QUOTA of newer headers.
constexpr uint64_t kEnableSimpleQuotas = 4;

void ControlQuotas(const std::string& mountPoint, uint64_t command) {
  const UniqueFd fd = Open(mountPoint, O_RDONLY | O_DIRECTORY);
  btrfs_ioctl_quota_ctl_args args{};
  args.cmd = command;
  Must(ioctl(fd.Get(), BTRFS_IOC_QUOTA_CTL, &args), "change the quotas of " + mountPoint);
}

}  // namespace

UniqueFd Open(const std::string& path, int flags) {
  UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC, 0644));
  Must(fd.Get(), "open " + path);
  return fd;
}

void CreateSubvolume(const std::string& path) {
  btrfs_ioctl_vol_args_v2 args = Named(path);
  Must(ioctl(OpenParent(path).Get(), BTRFS_IOC_SUBVOL_CREATE_V2, &args), "create " + path);
}

void CreateSnapshot(const std::string& source, const std::string& path, bool readOnly) {
  const UniqueFd from = Open(source, O_RDONLY | O_DIRECTORY);
  btrfs_ioctl_vol_args_v2 args = Named(path);
  args.fd = from.Get();
  args.flags = readOnly ? BTRFS_SUBVOL_RDONLY : 0;
  Must(ioctl(OpenParent(path).Get(), BTRFS_IOC_SNAP_CREATE_V2, &args), "snapshot " + path);
}

void DestroySubvolume(const std::string& path) {
  btrfs_ioctl_vol_args_v2 args = Named(path);
  Must(ioctl(OpenParent(path).Get(), BTRFS_IOC_SNAP_DESTROY_V2, &args), "delete " + path);
}

void SetReadOnly(const std::string& subvolume, bool readOnly) {
  const UniqueFd fd = Open(subvolume, O_RDONLY | O_DIRECTORY);
  uint64_t flags = 0;
  Must(ioctl(fd.Get(), BTRFS_IOC_SUBVOL_GETFLAGS, &flags), "flags of " + subvolume);
  flags = readOnly ? flags | BTRFS_SUBVOL_RDONLY : flags & ~BTRFS_SUBVOL_RDONLY;
  Must(ioctl(fd.Get(), BTRFS_IOC_SUBVOL_SETFLAGS, &flags), "flags of " + subvolume);
}

uint64_t RootId(const std::string& path) {
  btrfs_ioctl_ino_lookup_args args{};
  args.objectid = BTRFS_FIRST_FREE_OBJECTID;
  Must(ioctl(Open(path, O_RDONLY).Get(), BTRFS_IOC_INO_LOOKUP, &args), "ID of " + path);
  return args.treeid;
}

void CloneRange(const FileRange& source, const std::string& target, uint64_t to) {
  const UniqueFd in = Open(source.path, O_RDONLY);
  const UniqueFd out = Open(target, O_WRONLY | O_CREAT);
  file_clone_range range{in.Get(), source.offset, source.length, to};
  Must(ioctl(out.Get(), FICLONERANGE, &range), "clone to " + target);
}

uint64_t DedupeRange(const FileRange& source, const std::string& target, uint64_t to) {
  const UniqueFd in = Open(source.path, O_RDONLY);
  const UniqueFd out = Open(target, O_RDWR);
  std::vector<char> buffer(sizeof(file_dedupe_range) + sizeof(file_dedupe_range_info));
  file_dedupe_range* range = reinterpret_cast<file_dedupe_range*>(buffer.data());
  range->src_offset = source.offset;
  range->src_length = source.length;
  range->dest_count = 1;
  range->info[0].dest_fd = out.Get();
  range->info[0].dest_offset = to;
  Must(ioctl(in.Get(), FIDEDUPERANGE, range), "dedupe " + target);
  if (range->info[0].status < 0) {
    errno = -range->info[0].status;
    Must(-1, "dedupe " + target);
  }
  return range->info[0].status == FILE_DEDUPE_RANGE_SAME ? range->info[0].bytes_deduped : 0;
}

void Defragment(const std::string& path, bool compress) {
  constexpr uint32_t kZstd = 3;  // the kernel's number, also in the property of a file
  btrfs_ioctl_defrag_range_args args{};
  args.len = UINT64_MAX;
  args.extent_thresh = 256 << 10;
  args.flags = BTRFS_DEFRAG_RANGE_START_IO | (compress ? BTRFS_DEFRAG_RANGE_COMPRESS : 0);
  args.compress_type = compress ? kZstd : 0;
  Must(ioctl(Open(path, O_RDWR).Get(), BTRFS_IOC_DEFRAG_RANGE, &args), "defragment " + path);
}

void Commit(const std::string& mountPoint) {
  const UniqueFd fd = Open(mountPoint, O_RDONLY | O_DIRECTORY);
  Must(ioctl(fd.Get(), BTRFS_IOC_SYNC), "sync " + mountPoint);
}

void CommitAndClean(const std::string& mountPoint) {
  const auto isClean = [&] {
    Commit(mountPoint);
    return !HasDeletedSubvolumes(mountPoint);
  };
  if (!WaitUntil(isClean, 60))
    throw std::system_error(ETIMEDOUT, std::generic_category(), "cleaning " + mountPoint);
  Commit(mountPoint);
}

void EnableSimpleQuotas(const std::string& mountPoint) {
  ControlQuotas(mountPoint, kEnableSimpleQuotas);
}

void DisableQuotas(const std::string& mountPoint) {
  ControlQuotas(mountPoint, BTRFS_QUOTA_CTL_DISABLE);
}

void CreateQuotaGroup(const UniqueFd& mountPoint, uint64_t group) {
  btrfs_ioctl_qgroup_create_args args{/*create=*/1, group};
  Must(ioctl(mountPoint.Get(), BTRFS_IOC_QGROUP_CREATE, &args), "make a quota group");
}

void AssignToQuotaGroup(const UniqueFd& mountPoint, uint64_t member, uint64_t group) {
  btrfs_ioctl_qgroup_assign_args args{/*assign=*/1, member, group};
  Must(ioctl(mountPoint.Get(), BTRFS_IOC_QGROUP_ASSIGN, &args), "assign to a quota group");
}

SpaceUsed UsedSpace(const std::string& mountPoint) {
  const UniqueFd fd = Open(mountPoint, O_RDONLY | O_DIRECTORY);
  constexpr size_t kSlots = 64;  // more than there are kinds and profiles
  std::vector<char> buffer(sizeof(btrfs_ioctl_space_args) +
                           kSlots * sizeof(btrfs_ioctl_space_info));
  btrfs_ioctl_space_args* args = reinterpret_cast<btrfs_ioctl_space_args*>(buffer.data());
  args->space_slots = kSlots;
  Must(ioctl(fd.Get(), BTRFS_IOC_SPACE_INFO, args), "space of " + mountPoint);
  SpaceUsed used;
  for (uint64_t i = 0; i < args->total_spaces; ++i) {
    const btrfs_ioctl_space_info& space = args->spaces[i];
    if (space.flags & BTRFS_SPACE_INFO_GLOBAL_RSV) continue;
    if (space.flags & BTRFS_BLOCK_GROUP_DATA) used.data += space.used_bytes;
    if (space.flags & BTRFS_BLOCK_GROUP_METADATA) used.metadata += space.used_bytes;
  }
  return used;
}

void ForEachItem(const std::string& mountPoint, uint64_t tree,
                 const std::function<void(const TreeItem&)>& visit) {
  const UniqueFd fd = Open(mountPoint, O_RDONLY | O_DIRECTORY);
  constexpr size_t kBufferSize = 1 << 20;
  std::vector<char> buffer(sizeof(btrfs_ioctl_search_args_v2) + kBufferSize);
  btrfs_ioctl_search_args_v2* args = reinterpret_cast<btrfs_ioctl_search_args_v2*>(buffer.data());
  args->key.tree_id = tree;
  args->key.max_objectid = args->key.max_offset = args->key.max_transid = UINT64_MAX;
  args->key.max_type = UINT8_MAX;
  for (;;) {
    args->key.nr_items = UINT32_MAX;
    args->buf_size = kBufferSize;
    Must(ioctl(fd.Get(), BTRFS_IOC_TREE_SEARCH_V2, args), "search tree " + std::to_string(tree));
    if (args->key.nr_items == 0) return;
    const char* at = reinterpret_cast<const char*>(args->buf);
    btrfs_ioctl_search_header header{};
    for (uint32_t i = 0; i < args->key.nr_items; ++i) {
      memcpy(&header, at, sizeof header);
      at += sizeof header;
      visit({header.objectid, header.type, header.offset, at, header.len});
      at += header.len;
    }
    // On from the key after the last one.
    args->key.min_objectid = header.objectid;
    args->key.min_type = header.type;
    args->key.min_offset = header.offset + 1;
    if (args->key.min_offset != 0) continue;
    if (++args->key.min_type <= UINT8_MAX) continue;
    args->key.min_type = 0;
    if (++args->key.min_objectid == 0) return;
  }
}

}  // namespace ZorvTest
