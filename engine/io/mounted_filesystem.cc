#include "engine/io/mounted_filesystem.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <chrono>
#include <future>
#include <thread>
#include <utility>

#include "engine/io/ioctls.h"
#include "engine/io/mounted_devices.h"
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

std::string MountedFilesystem::Name() const { return UuidText(fsid_); }

bool MountedFilesystem::SameAs(const MountedFilesystem& other) const {
  return memcmp(fsid_, other.fsid_, kUuidSize) == 0;
}

Status MountedFilesystem::ReadSuperblock(Superblock* out) {
  DeviceSet devices;
  ENGINE_TRY(OpenMountedDevices(fd_.Get(), fsid_, &devices));
  devicesChanged_ = !devices.SameAs(devices_);
  devices_ = std::move(devices);
  return devices_.ReadNewestSuperblock(out);
}

// A device that was removed meanwhile has no superblock any more, and need not have one: so what is
// found is looked for once more on the devices that the kernel has by then.
std::vector<std::string> MountedFilesystem::FindDamage() const {
  const std::vector<std::string> damage = devices_.FindDamage();
  DeviceSet now;
  if (damage.empty() || !OpenMountedDevices(fd_.Get(), fsid_, &now).Ok()) return damage;
  return now.FindDamage();
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
  ENGINE_TRY(ReadSuperblock(out));
  while (out->generation.Get() < wanted && Clock::now() < deadline) {
    std::this_thread::sleep_for(kBetweenLooks);
    ENGINE_TRY(devices_.ReadNewestSuperblock(out));
  }
  if (out->generation.Get() >= wanted) return Status();
  *note = kNoCommitInTime;
  return Status();
}

}  // namespace ZorvEngine
