#include "tests/torture/hurting_volume.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <stdexcept>

#include "tests/engine/history.h"
#include "tests/support/btrfs_ioctls.h"

namespace ZorvTest {
namespace {

const std::string kImages = "/tmp/hurting";
constexpr int kDeviceMiB = 256;

// Makes the file system, leaves its images in `directory` and returns the kernel's numbers.
Sizes MakeImages(const DiskLayout& layout, const std::string& directory) {
  BtrfsOptions options = Options(0, layout.mkfs, "noatime");
  options.devicesMiB.assign(layout.devices, kDeviceMiB);
  BtrfsVolume volume(kMount, options);
  MakeHistory(volume, 200, 4);
  volume.Subvolume("photos");
  for (unsigned n = 1; n <= 3; ++n) {
    WriteFiles("photos", n * 30, n * 30 + 40, n);
    volume.Snapshot("photos", "photos/.snapshots/GMT-2024.03.0" + std::to_string(n) + "-09.04.09");
  }
  MustRun({"sync", "-f", kMount});
  MustRun({kStockBtrfs, "subvolume", "sync", kMount});
  const Sizes kernel = volume.KernelExclusive();
  volume.Unmount();
  volume.SaveImages(directory);
  return kernel;
}

// The images of a layout to be worked on, made once, and copied to kImages; the kernel's numbers.
const Sizes& CopyImages(const DiskLayout& layout) {
  static std::map<std::string, Sizes> made;
  const std::string directory = kImages + "/" + layout.name;
  if (made.count(layout.name) == 0) made[layout.name] = MakeImages(layout, directory);
  for (size_t n = 1; n <= layout.devices; ++n) {
    const std::string name = "/device" + std::to_string(n);
    MustRun({"cp", "--sparse=always", directory + name, kImages + name});
  }
  return made[layout.name];
}

std::string ImageOf(size_t device) { return kImages + "/device" + std::to_string(device + 1); }

}  // namespace

HurtingVolume::HurtingVolume(const DiskLayout& layout)
    : layout_(layout), kernel_(CopyImages(layout)) {
  std::string devices;
  for (size_t n = 0; n < layout.devices; ++n) {
    disks_.push_back(std::make_unique<FaultyDisk>(ImageOf(n), "/tmp/disk" + std::to_string(n + 1)));
    loops_.push_back(MustRun({"losetup", "--find", "--show", disks_.back()->Path()}));
    loops_.back().pop_back();
    devices += ",device=" + loops_.back();
  }
  // Nothing is committed that nobody asked for.
  MustRun({"mount", "-t", "btrfs", "-o", "noatime,commit=300" + devices, loops_[0], kMount});
  // From now on each goes by itself when the mount does.
  for (const std::string& loop : loops_) MustRun({"losetup", "--detach", loop});
  MustRun({"sync", "-f", kMount});

  std::vector<std::string> images;
  for (size_t n = 0; n < layout.devices; ++n) images.push_back(ImageOf(n));
  blocks_ = FindLiveBlocks(images, layout.copies, &nodeSize_);
  // The kernel has in memory what it is going to look at; so it meets no fault itself.
  for (const char* method : {"--method=scan", "--method=walk"}) {
    const EngineRun run = RunEngine(Arguments(method));
    if (run.sizes != kernel_ || !run.err.empty())
      throw std::runtime_error("the sound file system is not counted: " + run.err);
  }
}

HurtingVolume::~HurtingVolume() {
  ClearFaults();
  (void)umount2(kMount, MNT_DETACH);
  disks_.clear();
  (void)Run({kStockBtrfs, "device", "scan", "--forget"});
  for (size_t n = 0; n < layout_.devices; ++n) (void)unlink(ImageOf(n).c_str());
}

std::vector<std::string> HurtingVolume::Arguments(const std::string& options) const {
  std::vector<std::string> args = {"-vm", "-r", kMount};
  std::istringstream words(options);
  for (std::string word; words >> word;) args.push_back(word);
  for (const auto& [id, bytes] : kernel_) args.push_back(std::to_string(id));
  return args;
}

std::vector<uint8_t> HurtingVolume::ContentOf(const LiveBlock::Copy& copy) const {
  std::vector<uint8_t> bytes(nodeSize_);
  if (pread(Open(ImageOf(copy.device), O_RDONLY).Get(), bytes.data(), bytes.size(),
            static_cast<off_t>(copy.offset)) != static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("an image is short");
  return bytes;
}

void HurtingVolume::ClearFaults() {
  for (const auto& disk : disks_) disk->Clear();
}

}  // namespace ZorvTest
