#include "tests/torture/power_cut_disk.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "base/unique_fd.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

const std::string kBelow = "/tmp/power-cut-below";  // where a disk is mounted under an overlay
constexpr char kStore[] = "/tmp/power-cut-store";
constexpr uintmax_t kStoreBytes = uintmax_t{8} << 30;  // sparse

void MakeImage(const std::string& path, uintmax_t bytes) {
  WriteFile(path, "");
  std::filesystem::resize_file(path, bytes);
}

// A name that others have opened for a moment keeps a mount from going.
void UnmountBusy(const std::string& mountPoint) {
  const auto unmounted = [&] { return umount2(mountPoint.c_str(), 0) == 0; };
  if (!WaitUntil(unmounted)) throw std::runtime_error("cannot unmount " + mountPoint);
}

}  // namespace

long long Nanoseconds() {
  timespec now;
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

CloneStore::CloneStore() {
  std::string image = std::string(ZORV_BINARY_DIR) + "/power-cut.XXXXXX";
  const UniqueFd fd(mkstemp(image.data()));
  if (!fd.Valid()) throw std::runtime_error("no file in the build directory");
  std::filesystem::resize_file(image, kStoreBytes);
  std::filesystem::create_directories(kStore);
  MustRun({"mkfs.btrfs", "-q", image});
  // No barriers: what counts is what has come to a file of the store, not to the machine's disk.
  MustRun({"mount", "-t", "btrfs", "-o", "loop,nobarrier", image, kStore});
  (void)unlink(image.c_str());  // so that it goes with the program, however that ends
}

CloneStore::~CloneStore() { (void)umount2(kStore, MNT_DETACH); }

std::string CloneStore::Path(const std::string& name) const {
  return std::string(kStore) + "/" + name;
}

PowerCutDisk::PowerCutDisk(const CloneStore& store, const std::string& mountPoint,
                           const DiskOptions& options)
    : store_(store), mountPoint_(mountPoint), options_(options), image_(store.Path("disk")) {
  MakeImage(image_, static_cast<uintmax_t>(options.sizeMiB) << 20);
  MustRun({"mkfs." + options.type, "-q", image_});
  std::filesystem::create_directories(mountPoint_);
  std::filesystem::create_directories(OwnMountPoint());
  Mount(image_);
}

PowerCutDisk::~PowerCutDisk() {
  if (mounted_) {
    (void)umount2(mountPoint_.c_str(), MNT_DETACH);
    if (options_.overlay) (void)umount2(kBelow.c_str(), MNT_DETACH);
  }
  (void)unlink(image_.c_str());
}

void PowerCutDisk::Mount(const std::string& image) {
  MustRun({"mount", "-t", options_.type, "-o", "loop," + options_.options, image, OwnMountPoint()});
  if (options_.overlay) MountOverlay();
  mounted_ = true;
}

void PowerCutDisk::MountOverlay() {
  for (const char* layer : {"/lower", "/upper", "/work"})
    std::filesystem::create_directories(kBelow + layer);
  MustRun(
      {"mount", "-t", "overlay", "-o",
       "lowerdir=" + kBelow + "/lower,upperdir=" + kBelow + "/upper,workdir=" + kBelow + "/work",
       "overlay", mountPoint_});
}

const std::string& PowerCutDisk::OwnMountPoint() const {
  return options_.overlay ? kBelow : mountPoint_;
}

void PowerCutDisk::Unmount() {
  std::string device = MustRun({"findmnt", "-n", "-o", "SOURCE", "--mountpoint", OwnMountPoint()});
  device.pop_back();
  UnmountBusy(mountPoint_);
  if (options_.overlay) UnmountBusy(kBelow);
  mounted_ = false;
  // An older state of the same file system comes next, from another device.
  if (options_.type == "btrfs") (void)Run({kStockBtrfs, "device", "scan", "--forget", device});
}

Cut PowerCutDisk::TakeCut() {
  Cut cut;
  cut.image = store_.Path("cut" + std::to_string(++cuts_));
  const UniqueFd from(open(image_.c_str(), O_RDONLY | O_CLOEXEC));
  const UniqueFd to(open(cut.image.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  cut.begin = Nanoseconds();
  if (ioctl(to.Get(), FICLONE, from.Get()) != 0)
    throw std::runtime_error(std::string("no clone: ") + strerror(errno));
  cut.end = Nanoseconds();
  return cut;
}

void PowerCutDisk::LookAt(const Cut& cut, const std::function<void()>& look) {
  Mount(cut.image);
  look();
  Unmount();
  (void)unlink(cut.image.c_str());
}

}  // namespace ZorvTest
