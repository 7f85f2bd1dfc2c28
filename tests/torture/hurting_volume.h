// A file system on disks that fail on command, with the kernel's own numbers of it.
#ifndef TESTS_TORTURE_HURTING_VOLUME_H_
#define TESTS_TORTURE_HURTING_VOLUME_H_

#include <memory>
#include <string>
#include <vector>

#include "tests/engine/engine_run.h"
#include "tests/torture/faulty_disk.h"
#include "tests/torture/live_blocks.h"

namespace ZorvTest {

// How a file system lies on its devices.
struct DiskLayout {
  const char* name;
  size_t devices;
  std::vector<std::string> mkfs;
  size_t copies;  // of each tree block that can be read
};

// A mounted file system at kMount with the share "photos" and other snapshots, numbers from the
// kernel, and nothing going on.
class HurtingVolume {
 public:
  // The first of a layout takes about as long as a quota rescan; others are copies of it.
  explicit HurtingVolume(const DiskLayout& layout);
  ~HurtingVolume();
  HurtingVolume(const HurtingVolume&) = delete;
  HurtingVolume& operator=(const HurtingVolume&) = delete;

  size_t Copies() const { return layout_.copies; }
  FaultyDisk& Disk(size_t device) { return *disks_[device]; }
  size_t Disks() const { return disks_.size(); }

  // The node of a disk, such as /dev/loop3.
  const std::string& Node(size_t device) const { return loops_[device]; }

  // The tree blocks that an engine may read.
  const std::vector<LiveBlock>& Blocks() const { return blocks_; }
  uint32_t NodeSize() const { return nodeSize_; }

  // What the kernel counted for each subvolume.
  const Sizes& Kernel() const { return kernel_; }

  // The arguments that ask for all subvolumes, by the words of `options` beside.
  std::vector<std::string> Arguments(const std::string& options) const;

  // What stands in the place of a copy now.
  std::vector<uint8_t> ContentOf(const LiveBlock::Copy& copy) const;

  // Ends all faults of all disks.
  void ClearFaults();

 private:
  DiskLayout layout_;
  std::vector<std::unique_ptr<FaultyDisk>> disks_;
  std::vector<std::string> loops_;
  std::vector<LiveBlock> blocks_;
  uint32_t nodeSize_ = 0;
  Sizes kernel_;
};

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_HURTING_VOLUME_H_
