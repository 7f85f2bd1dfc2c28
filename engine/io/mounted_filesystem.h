// mounted_filesystem.h: what the kernel says about a mounted btrfs file system.
#ifndef ENGINE_IO_MOUNTED_FILESYSTEM_H_
#define ENGINE_IO_MOUNTED_FILESYSTEM_H_

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "engine/io/device_set.h"
#include "engine/io/state_source.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// A mounted btrfs file system, held by a descriptor of a directory on it.
class MountedFilesystem : public StateSource {
 public:
  // Opens the file system that the directory `path` lies on (symbolic links are followed).
  // Fails when it is no directory, not on btrfs or cannot be asked.
  Status Open(const std::string& path);

  // The number of the subvolume whose root is the opened directory; fails when it is none.
  // The path of Open stands in the message.
  Status SubvolumeHere(uint64_t* id) const;

  // A descriptor of the opened directory; the object's own.
  int Directory() const { return fd_.Get(); }

  // The file system's id as text.
  std::string Name() const;

  // Whether both are the same file system, however they were reached.
  bool SameAs(const MountedFilesystem& other) const;

  const DeviceSet& Devices() const override { return devices_; }

  // Opens the devices anew first: some may have come, gone or been replaced since.
  Status ReadSuperblock(Superblock* out) override;

  bool DevicesChanged() const override { return devicesChanged_; }
  std::vector<std::string> FindDamage() const override;

  // As ReadSuperblock.  Waits `kCommitSeconds` at most for the kernel to start the commit and again
  // to finish it.
  static constexpr int kCommitSeconds = 5;
  Status CommitAndReadSuperblock(Superblock* out, std::string* note) override;

 private:
  bool StartCommit(uint64_t* generation, std::string* note) const;

  UniqueFd fd_;
  std::string path_;
  uint8_t fsid_[kUuidSize] = {};
  DeviceSet devices_;
  bool devicesChanged_ = false;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_MOUNTED_FILESYSTEM_H_
