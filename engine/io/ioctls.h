// ioctls.h: the requests of btrfs that the engine makes, each an object with its arguments and
// results. Structures and numbers from <linux/btrfs.h>.
#ifndef ENGINE_IO_IOCTLS_H_
#define ENGINE_IO_IOCTLS_H_

#include <endian.h>
#include <errno.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <string.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <string>

namespace ZorvEngine {

// The file system behind a descriptor: its id and the highest number of its devices.
struct FsInfo {
  btrfs_ioctl_fs_info_args args{};

  // 0 or -errno, as for all Run functions here.
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_FS_INFO, &args) < 0 ? -errno : 0; }
  const uint8_t* Fsid() const { return args.fsid; }
  uint64_t MaxDevid() const { return args.max_id; }
};

// One device of a file system; -ENODEV when there is none with this number.
struct DevInfo {
  btrfs_ioctl_dev_info_args args{};

  explicit DevInfo(uint64_t devid) { args.devid = devid; }
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_DEV_INFO, &args) < 0 ? -errno : 0; }
  const uint8_t* Uuid() const { return args.uuid; }
  std::string Path() const {
    const char* path = reinterpret_cast<const char*>(args.path);
    return std::string(path, strnlen(path, sizeof args.path));
  }
};

// Starts a commit; the result is the generation that it will have, or the last one when nothing was
// to be written.
struct StartSync {
  __u64 generation = 0;

  int Run(int fd) { return ioctl(fd, BTRFS_IOC_START_SYNC, &generation) < 0 ? -errno : 0; }
  uint64_t Generation() const { return generation; }
};

// The subvolume that a descriptor lies in.
struct ContainingSubvolume {
  btrfs_ioctl_ino_lookup_args args{};

  ContainingSubvolume() { args.objectid = BTRFS_FIRST_FREE_OBJECTID; }
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_INO_LOOKUP, &args) < 0 ? -errno : 0; }
  uint64_t RootId() const { return args.treeid; }
};

// The path of a directory, from the root of its subvolume.
struct DirectoryPath {
  btrfs_ioctl_ino_lookup_args args{};

  DirectoryPath(uint64_t subvolume, uint64_t inode) {
    args.treeid = subvolume;
    args.objectid = inode;
  }
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_INO_LOOKUP, &args) < 0 ? -errno : 0; }
  // Ends with a slash; empty for the root.
  std::string Path() const { return std::string(args.name, strnlen(args.name, sizeof args.name)); }
};

// Where a subvolume hangs in the directory tree of another one; as the file system has it now,
// committed or not.
struct SubvolumePlace {
  btrfs_ioctl_search_args args{};

  explicit SubvolumePlace(uint64_t id) {
    args.key.tree_id = BTRFS_ROOT_TREE_OBJECTID;
    args.key.min_objectid = args.key.max_objectid = id;
    args.key.min_type = args.key.max_type = BTRFS_ROOT_BACKREF_KEY;
    args.key.max_offset = args.key.max_transid = UINT64_MAX;
    args.key.nr_items = 1;
  }
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_TREE_SEARCH, &args) < 0 ? -errno : 0; }

  // False when it hangs nowhere: it is deleted, or is the top level.
  bool Found() const {
    return args.key.nr_items == 1 && Header().len >= sizeof(btrfs_root_ref) &&
           Header().len - sizeof(btrfs_root_ref) >= NameSize();
  }
  uint64_t Parent() const { return Header().offset; }
  uint64_t Directory() const { return le64toh(Reference().dirid); }
  std::string Name() const {
    return std::string(args.buf + sizeof(btrfs_ioctl_search_header) + sizeof(btrfs_root_ref),
                       NameSize());
  }

 private:
  btrfs_ioctl_search_header Header() const { return At<btrfs_ioctl_search_header>(0); }
  btrfs_root_ref Reference() const { return At<btrfs_root_ref>(sizeof(btrfs_ioctl_search_header)); }
  size_t NameSize() const { return le16toh(Reference().name_len); }

  template <typename T>
  T At(size_t offset) const {
    T value;
    memcpy(&value, args.buf + offset, sizeof value);
    return value;
  }
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_IOCTLS_H_
