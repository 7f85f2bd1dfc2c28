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
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

std::string NewFile() {
  char name[] = "/tmp/volume.XXXXXX";
  const UniqueFd fd(mkstemp(name));
  if (!fd.Valid()) throw std::runtime_error("no temporary file");
  return name;
}

// Lines "0/257  16384  16384 ..." of `qgroup show --raw`.
std::map<unsigned long long, unsigned long long> ParseQgroups(const std::string& text) {
  std::map<unsigned long long, unsigned long long> exclusive;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    unsigned long long id = 0, referenced = 0, own = 0;
    if (sscanf(line.c_str(), "0/%llu %llu %llu", &id, &referenced, &own) == 3) exclusive[id] = own;
  }
  return exclusive;
}

}  // namespace

BtrfsVolume::BtrfsVolume(const std::string& mountPoint, const BtrfsOptions& options)
    : mountPoint_(mountPoint), image_(NewFile()), options_(options.mount) {
  std::filesystem::resize_file(image_, static_cast<uintmax_t>(options.sizeMiB) << 20);
  std::vector<std::string> mkfs = {"mkfs.btrfs", "-q", "-f"};
  mkfs.insert(mkfs.end(), options.mkfs.begin(), options.mkfs.end());
  mkfs.push_back(image_);
  MustRun(mkfs);
  std::filesystem::create_directories(mountPoint_);
  Mount();
}

BtrfsVolume::~BtrfsVolume() {
  (void)umount2(mountPoint_.c_str(), MNT_DETACH);
  (void)unlink(image_.c_str());
}

std::string BtrfsVolume::Device() const {
  std::string device = MustRun({"findmnt", "-n", "-o", "SOURCE", "--mountpoint", mountPoint_});
  return device.substr(0, device.find_first_of("[\n"));
}

void BtrfsVolume::Mount() {
  MustRun({"mount", "-t", "btrfs", "-o", options_.empty() ? "loop" : "loop," + options_, image_,
           mountPoint_});
}

void BtrfsVolume::Unmount() { MustRun({"umount", mountPoint_}); }

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
  const std::string copy = NewFile();
  const std::string at = copy + ".mnt";
  std::filesystem::create_directories(at);
  Unmount();
  MustRun({"cp", "--sparse=always", image_, copy});
  MustRun({"mount", "-t", "btrfs", "-o", "loop", copy, at});
  MustRun({kStockBtrfs, "subvolume", "sync", at});
  MustRun({kStockBtrfs, "quota", "enable", at});
  MustRun({kStockBtrfs, "quota", "rescan", "-w", at});
  MustRun({"sync", "-f", at});
  const std::string text = MustRun({kStockBtrfs, "qgroup", "show", "--raw", "--sync", at});
  MustRun({"umount", at});
  (void)unlink(copy.c_str());
  Mount();
  return ParseQgroups(text);
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
