#include "tests/support/btrfs_volume.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <sstream>
#include <stdexcept>

#include "base/unique_fd.h"
#include "tests/support/btrfs_ioctls.h"
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

// An empty sparse image of `sizeMiB`.
std::string NewImage(int sizeMiB) {
  char name[] = "/tmp/volume.XXXXXX";
  const UniqueFd fd(mkstemp(name));
  if (!fd.Valid()) throw std::runtime_error("no temporary file");
  std::filesystem::resize_file(name, static_cast<uintmax_t>(sizeMiB) << 20);
  return name;
}

std::string AttachLoop(const std::string& image) {
  std::string loop = MustRun({"losetup", "--find", "--show", image});
  loop.pop_back();
  return loop;
}

// Has the kernel forget what it has seen on a loop device: a copy of it may come next.
void ForgetLoop(const std::string& loop) {
  (void)Run({kStockBtrfs, "device", "scan", "--forget", loop});
  (void)Run({"losetup", "--detach", loop});
}

// Lines "0/257  16384  16384 ..." of `qgroup show --raw`; the sets are the groups 1/0, 1/1, ...
KernelSizes ParseQgroups(const std::string& text, size_t sets) {
  KernelSizes sizes;
  sizes.sets.resize(sets);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    unsigned long long level = 0, id = 0, referenced = 0, own = 0;
    if (sscanf(line.c_str(), "%llu/%llu %llu %llu", &level, &id, &referenced, &own) != 4) continue;
    if (level == 0)
      sizes.exclusive[id] = own;
    else
      sizes.sets.at(id) = own;
  }
  return sizes;
}

// Makes the groups of sets and puts their members in; numbers are not told anew yet.
void MakeGroups(const std::string& mountPoint, const BtrfsVolume::IdSets& sets) {
  const UniqueFd fd = Open(mountPoint, O_RDONLY | O_DIRECTORY);
  for (size_t n = 0; n < sets.size(); ++n) {
    const uint64_t group = uint64_t{1} << BTRFS_QGROUP_LEVEL_SHIFT | n;
    CreateQuotaGroup(fd, group);
    for (const unsigned long long id : sets[n]) AssignToQuotaGroup(fd, id, group);
  }
}

}  // namespace

BtrfsVolume::BtrfsVolume(const std::string& mountPoint, const BtrfsOptions& options)
    : mountPoint_(mountPoint), options_(options.mount) {
  const bool several = !options.devicesMiB.empty();
  for (const int size : several ? options.devicesMiB : std::vector<int>{options.sizeMiB})
    images_.push_back(NewImage(size));
  if (several) loops_.resize(images_.size());
  std::vector<std::string> mkfs = {"mkfs.btrfs", "-q", "-f"};
  mkfs.insert(mkfs.end(), options.mkfs.begin(), options.mkfs.end());
  mkfs.insert(mkfs.end(), images_.begin(), images_.end());
  MustRun(mkfs);
  std::filesystem::create_directories(mountPoint_);
  Mount();
}

BtrfsVolume::BtrfsVolume(const BtrfsVolume& original, const std::string& mountPoint)
    : mountPoint_(mountPoint), options_(original.options_) {
  for (const std::string& image : original.images_) {
    images_.push_back(NewImage(0));
    MustRun({"cp", "--sparse=always", image, images_.back()});
  }
  loops_.resize(original.loops_.size());
  std::filesystem::create_directories(mountPoint_);
}

BtrfsVolume::~BtrfsVolume() {
  if (getpid() != owner_) return;  // a forked child's copy
  (void)umount2(mountPoint_.c_str(), MNT_DETACH);
  Detach();
  for (const std::string& image : images_) (void)unlink(image.c_str());
}

std::string BtrfsVolume::Device() const {
  std::string device = MustRun({"findmnt", "-n", "-o", "SOURCE", "--mountpoint", mountPoint_});
  return device.substr(0, device.find_first_of("[\n"));
}

void BtrfsVolume::Mount() {
  if (!HasOwnLoops()) {
    MustRun({"mount", "-t", "btrfs", "-o", options_.empty() ? "loop" : "loop," + options_,
             images_[0], mountPoint_});
    return;
  }
  Attach();
  std::string options = options_;
  for (const std::string& loop : loops_)
    options += (options.empty() ? "device=" : ",device=") + loop;
  try {
    // By the last device: the first may be a seed of it.
    MustRun({"mount", "-t", "btrfs", "-o", options, loops_.back(), mountPoint_});
  } catch (...) {
    Detach();
    throw;
  }
}

void BtrfsVolume::Unmount() {
  // For a moment after its last user has gone the kernel may still hold a file that was open.
  CommandResult last;
  const auto unmounted = [&] {
    last = Run({"umount", mountPoint_});
    return last.status == 0;
  };
  if (!WaitUntil(unmounted)) throw std::runtime_error(last.err);
  Detach();
}

void BtrfsVolume::Attach() {
  for (size_t i = 0; i < loops_.size(); ++i)
    if (loops_[i].empty()) loops_[i] = AttachLoop(images_[i]);
}

void BtrfsVolume::Detach() {
  for (std::string& loop : loops_) {
    if (!loop.empty()) ForgetLoop(loop);
    loop.clear();
  }
}

std::string BtrfsVolume::AddDevice(int sizeMiB) {
  images_.push_back(NewImage(sizeMiB));
  loops_.push_back(AttachLoop(images_.back()));
  return loops_.back();
}

void BtrfsVolume::RemoveDevice(size_t index) {
  if (!loops_.at(index).empty()) ForgetLoop(loops_[index]);
  (void)unlink(images_[index].c_str());
  loops_.erase(loops_.begin() + static_cast<long>(index));
  images_.erase(images_.begin() + static_cast<long>(index));
}

std::string BtrfsVolume::Subvolume(const std::string& path) const {
  std::filesystem::create_directories(std::filesystem::path(Path(path)).parent_path());
  MustRun({kStockBtrfs, "subvolume", "create", Path(path)});
  return Path(path);
}

std::string BtrfsVolume::Snapshot(const std::string& source, const std::string& path,
                                  bool readOnly) const {
  std::filesystem::create_directories(std::filesystem::path(Path(path)).parent_path());
  std::vector<std::string> argv = {kStockBtrfs, "subvolume", "snapshot"};
  if (readOnly) argv.push_back("-r");
  argv.push_back(Path(source));
  argv.push_back(Path(path));
  MustRun(argv);
  return Path(path);
}

void BtrfsVolume::DeleteSubvolume(const std::string& path) const {
  MustRun({kStockBtrfs, "subvolume", "delete", Path(path)});
}

std::map<unsigned long long, unsigned long long> BtrfsVolume::KernelExclusive() {
  return KernelExclusiveOf({}).exclusive;
}

KernelSizes BtrfsVolume::KernelExclusiveOf(const IdSets& sets) {
  Unmount();
  BtrfsVolume copy(*this, images_[0] + ".copy");
  copy.Mount();
  const std::string& at = copy.MountPoint();
  CommitAndClean(at);
  DisableQuotas(at);
  MustRun({kStockBtrfs, "quota", "enable", at});
  MustRun({kStockBtrfs, "quota", "rescan", "-w", at});
  if (!sets.empty()) {
    // Only now: enabling begins a rescan of its own, which would count half for a new group.
    MakeGroups(at, sets);
    MustRun({kStockBtrfs, "quota", "rescan", "-w", at});
  }
  MustRun({"sync", "-f", at});
  const std::string text = MustRun({kStockBtrfs, "qgroup", "show", "--raw", "--sync", at});
  copy.Unmount();
  Mount();
  return ParseQgroups(text, sets.size());
}

std::unique_ptr<BtrfsVolume> BtrfsVolume::Copy() const {
  return std::unique_ptr<BtrfsVolume>(new BtrfsVolume(*this, mountPoint_));
}

void BtrfsVolume::SaveImages(const std::string& directory) const {
  std::filesystem::create_directories(directory);
  for (size_t n = 0; n < images_.size(); ++n)
    MustRun({"cp", "--sparse=always", images_[n], directory + "/device" + std::to_string(n + 1)});
}

unsigned long long SubvolumeID(const std::string& path) {
  return strtoull(MustRun({kStockBtrfs, "inspect-internal", "rootid", path}).c_str(), nullptr, 10);
}

void WriteRandom(const std::string& path, size_t bytes, unsigned seed, size_t offset) {
  std::mt19937_64 random(seed);
  std::vector<unsigned long long> words((bytes + 7) / 8);
  for (unsigned long long& word : words) word = random();
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  const char* data = reinterpret_cast<const char*>(words.data());
  if (pwrite(fd.Get(), data, bytes, static_cast<off_t>(offset)) != static_cast<ssize_t>(bytes) ||
      fsync(fd.Get()) != 0)
    throw std::runtime_error("cannot write " + path);
}

}  // namespace ZorvTest
