// What makes a file system busy while a test looks at the engine.
#ifndef TESTS_ENGINE_BUSY_VOLUME_H_
#define TESTS_ENGINE_BUSY_VOLUME_H_

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <exception>
#include <filesystem>
#include <functional>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/engine/history.h"
#include "tests/support/btrfs_ioctls.h"

namespace ZorvTest {

// Writes incompressible bytes over the begin of a file, without waiting for the disk; throws when
// they cannot be written.
inline void Overwrite(const std::string& path, size_t bytes, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string data(bytes, '\0');
  for (char& byte : data) byte = static_cast<char>(random());
  const UniqueFd fd = Open(path, O_WRONLY);
  if (pwrite(fd.Get(), data.data(), bytes, 0) != static_cast<ssize_t>(bytes))
    throw std::runtime_error("cannot write " + path);
}

// A process that does one thing again and again until the object goes.  What fails is left out: an
// activity may forbid another, as a balance does a resize.
class Activity {
 public:
  using Round = std::function<void(unsigned round)>;

  // `pause` in seconds between two rounds.
  explicit Activity(const Round& round, double pause = 0)
      : shared_(new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared),
        pid_(fork()) {
    if (pid_ == 0) Repeat(round, pause);
  }
  ~Activity() {
    shared_->stop = true;
    (void)WaitForExit(pid_);
    (void)munmap(shared_, sizeof(Shared));
  }
  Activity(const Activity&) = delete;
  Activity& operator=(const Activity&) = delete;

  // Rounds that succeeded.
  unsigned Done() const { return shared_->done; }

 private:
  struct Shared {
    std::atomic<bool> stop{false};
    std::atomic<unsigned> done{0};
  };

  [[noreturn]] void Repeat(const Round& round, double pause) {
    for (unsigned n = 0; !shared_->stop; ++n) {
      try {
        round(n);
        ++shared_->done;
      } catch (const std::exception&) {
        usleep(10000);
      }
      for (const double end = Seconds() + pause; !shared_->stop && Seconds() < end;) usleep(10000);
    }
    _exit(0);
  }

  Shared* shared_;
  pid_t pid_;
};

// Freezes a file system: nothing is written until the object goes.
class Freeze {
 public:
  explicit Freeze(const std::string& path) : fd_(Open(path, O_RDONLY | O_DIRECTORY)) {
    if (ioctl(fd_.Get(), FIFREEZE, 0) != 0) throw std::runtime_error("cannot freeze " + path);
  }
  ~Freeze() { (void)ioctl(fd_.Get(), FITHAW, 0); }
  Freeze(const Freeze&) = delete;
  Freeze& operator=(const Freeze&) = delete;

 private:
  UniqueFd fd_;
};

// What the kernel says in sysfs of the file system at kMount.
class KernelView {
 public:
  KernelView() {
    std::string uuid = MustRun({"findmnt", "-n", "-o", "UUID", "--mountpoint", kMount});
    uuid.pop_back();
    path_ = "/sys/fs/btrfs/" + uuid;
  }

  // The generation of the newest commit.
  unsigned long long Generation() const { return std::stoull(ReadFile(path_ + "/generation")); }

  bool IsBalancing() const {
    return ReadFile(path_ + "/exclusive_operation").rfind("balance", 0) == 0;
  }

 private:
  std::string path_;
};

// A limit on what passes between a device and programs, in bytes per second.
class SlowDisk {
 public:
  // Slow reading for the programs that Command runs.  Throws when the kernel has no such control
  // group.
  static SlowDisk Reading(const std::string& device, unsigned long long bytesPerSecond) {
    const std::string group = Hierarchy() + "/slow." + std::to_string(getpid()) + "." +
                              std::filesystem::path(device).filename().string();
    std::filesystem::create_directory(group);
    return SlowDisk(group, "read", device, bytesPerSecond);
  }

  // Slow writing for everybody: the kernel writes tree blocks in its own name.
  static SlowDisk Writing(const std::string& device, unsigned long long bytesPerSecond) {
    return SlowDisk(Hierarchy(), "write", device, bytesPerSecond);
  }

  ~SlowDisk() {
    WriteFile(rule_, device_ + " 0");
    if (group_ != Hierarchy()) (void)WaitUntil([this] { return rmdir(group_.c_str()) == 0; });
  }
  SlowDisk(const SlowDisk&) = delete;
  SlowDisk& operator=(const SlowDisk&) = delete;

  // The command that runs `argv` in the group.
  std::vector<std::string> Command(const std::vector<std::string>& argv) const {
    std::vector<std::string> all = {"sh", "-c", "echo 0 > \"$0\"/cgroup.procs && exec \"$@\"",
                                    group_};
    all.insert(all.end(), argv.begin(), argv.end());
    return all;
  }

 private:
  SlowDisk(const std::string& group, const std::string& direction, const std::string& device,
           unsigned long long bytesPerSecond)
      : group_(group), rule_(group + "/blkio.throttle." + direction + "_bps_device") {
    struct stat status;
    if (stat(device.c_str(), &status) != 0) throw std::runtime_error("no device " + device);
    device_ = std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
    WriteFile(rule_, device_ + " " + std::to_string(bytesPerSecond));
  }

  static std::string Hierarchy() {
    const std::string usual = "/sys/fs/cgroup/blkio";
    if (std::filesystem::exists(usual + "/blkio.throttle.read_bps_device")) return usual;
    const std::string own = "/run/blkio";
    std::filesystem::create_directories(own);
    if (!std::filesystem::exists(own + "/blkio.throttle.read_bps_device"))
      MustRun({"mount", "-t", "cgroup", "-o", "blkio", "blkio", own});
    return own;
  }

  std::string group_;
  std::string rule_;
  std::string device_;
};

// Whether a run may end with this while a file system is busy: it says what is in the way.
inline bool IsClearRefusal(const std::string& error) {
  for (const char* text :
       {"ERROR: the file system changes faster than it can be read",
        "ERROR: a balance is removing what it has moved, which this way of counting cannot follow",
        "ERROR: a balance, or a device that shrinks or goes, is giving subvolumes the blocks",
        "ERROR: a balance, or a device that shrinks or goes, is giving subvolumes the new places"})
    if (error.rfind(text, 0) == 0) return true;
  return false;
}

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_BUSY_VOLUME_H_
