#include "engine/io/mounted_filesystem.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <chrono>
#include <future>
#include <thread>

#include "engine/io/ioctls.h"
#include "engine/ondisk/keys.h"

namespace ZorvEngine {
namespace {

using Clock = std::chrono::steady_clock;

const char kNoCommitInTime[] =
    "the file system does not commit in time; the numbers are for its last commit";

constexpr auto kBetweenLooks = std::chrono::milliseconds(10);

}  // namespace

Status MountedFilesystem::Open(const std::string& path) {
  path_ = path;
  fd_.Reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd_.Valid()) return Status::Failed("cannot open " + path + ": " + strerror(errno));

  struct statfs kind;
  if (fstatfs(fd_.Get(), &kind) != 0)
    return Status::Failed("cannot find the file system of " + path + ": " + strerror(errno));
  if (kind.f_type != BTRFS_SUPER_MAGIC) return Status::Failed(path + " is not on btrfs");

  FsInfo info;
  const int failed = info.Run(fd_.Get());
  // In a snapshot, the place of a nested subvolume is an empty directory that answers nothing.
  if (failed == -ENOTTY)
    return Status::Failed(path +
                          " is the empty place of a nested subvolume; give the subvolume itself");
  if (failed != 0)
    return Status::Failed("cannot ask the file system of " + path + ": " + strerror(-failed));
  memcpy(fsid_, info.Fsid(), kUuidSize);
  maxDevid_ = info.MaxDevid();
  numDevices_ = info.NumDevices();
  return Status();
}

Status MountedFilesystem::SubvolumeHere(uint64_t* id) const {
  struct stat here;
  if (fstat(fd_.Get(), &here) != 0)
    return Status::Failed("cannot look at " + path_ + ": " + strerror(errno));
  // Roots of subvolumes have this inode number, and nothing else has.
  if (here.st_ino != kFirstInode)
    return Status::Failed(path_ + " is not a subvolume; give the root directory of one");

  ContainingSubvolume lookup;
  const int failed = lookup.Run(fd_.Get());
  if (failed != 0)
    return Status::Failed("cannot find the subvolume number of " + path_ + ": " +
                          strerror(-failed));
  *id = lookup.RootId();
  return Status();
}

bool MountedFilesystem::SameAs(const MountedFilesystem& other) const {
  return memcmp(fsid_, other.fsid_, kUuidSize) == 0;
}

Status MountedFilesystem::OpenDevice() {
  std::string devicePath;
  ENGINE_TRY(FindOnlyDevice(&devicePath));
  return device_.Open(devicePath);
}

// Numbers of devices may have holes, so all up to the highest are asked for.
Status MountedFilesystem::FindOnlyDevice(std::string* devicePath) {
  if (numDevices_ != 1)
    return Status::Failed("the file system has several devices (" + std::to_string(numDevices_) +
                          "); this engine reads file systems of one device");
  for (uint64_t devid = 0; devid <= maxDevid_; ++devid) {
    DevInfo device(devid);
    const int failed = device.Run(fd_.Get());
    if (failed == -ENODEV) continue;
    if (failed != 0)
      return Status::Failed(std::string("cannot ask for the device of the file system: ") +
                            strerror(-failed));
    memcpy(deviceUuid_, device.Uuid(), kUuidSize);
    *devicePath = device.Path();
    return Status();
  }
  return Status::Failed("the kernel names no device of the file system");
}

Status MountedFilesystem::ReadSuperblock(Superblock* out) {
  return ReadNewestSuperblock(device_, deviceUuid_, out);
}

// Asks for a commit on a thread of its own: on a stalled file system the request does not return,
// and no signal ends it.  False: not started in time, or refused; `note` says why.
bool MountedFilesystem::StartCommit(uint64_t* generation, std::string* note) const {
  struct Answer {
    int failed;
    uint64_t generation;
  };
  std::promise<Answer> promise;
  std::future<Answer> answer = promise.get_future();
  std::thread([fd = fd_.Get(), promise = std::move(promise)]() mutable {
    StartSync request;
    const int failed = request.Run(fd);
    promise.set_value({failed, request.Generation()});
  }).detach();

  if (answer.wait_for(std::chrono::seconds(kCommitSeconds)) != std::future_status::ready) {
    *note = kNoCommitInTime;
    return false;
  }
  const Answer got = answer.get();
  if (got.failed != 0) {
    *note = std::string("the file system refuses to commit (") + strerror(-got.failed) +
            "); the numbers are for its last commit";
    return false;
  }
  *generation = got.generation;
  return true;
}

Status MountedFilesystem::CommitAndReadSuperblock(Superblock* out, std::string* note) {
  note->clear();
  uint64_t wanted = 0;
  if (!StartCommit(&wanted, note)) return ReadSuperblock(out);

  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(kCommitSeconds);
  for (;;) {
    ENGINE_TRY(ReadSuperblock(out));
    if (out->generation.Get() >= wanted) return Status();
    if (Clock::now() >= deadline) break;
    std::this_thread::sleep_for(kBetweenLooks);
  }
  *note = kNoCommitInTime;
  return Status();
}

}  // namespace ZorvEngine
