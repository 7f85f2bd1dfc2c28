#include "bench/world.h"

#include <dlfcn.h>
#include <errno.h>
#include <json/value.h>
#include <linux/magic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "base/paths.h"
#include "tests/support/command.h"
#include "tests/support/sandbox.h"
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvBench {
namespace {

namespace fs = std::filesystem;

constexpr int kNoWorld = 125;

bool LiesInMemory(const std::string& dir) {
  struct statfs info;
  if (statfs(dir.c_str(), &info) != 0) throw std::runtime_error(dir + ": " + strerror(errno));
  return info.f_type == TMPFS_MAGIC || info.f_type == RAMFS_MAGIC;
}

std::string NewFolder(const std::string& disk) {
  if (LiesInMemory(disk)) throw std::runtime_error(disk + " lies in memory; give a disk's path");
  std::string folder = fs::absolute(disk).string() + "/bench.XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error(folder + ": " + strerror(errno));
  return folder;
}

// Shows a new directory of `folder` at `place`.
void Cover(const std::string& place, const std::string& folder, const char* name) {
  const std::string source = folder + "/" + name;
  fs::create_directory(source);
  if (mount(source.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0)
    throw std::runtime_error("bind " + place + ": " + strerror(errno));
}

// Reads what is logged, so that logging costs what it does beside a system's logger.
void StartLogReader() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, "/dev/log"};
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error(std::string("/dev/log: ") + strerror(errno));
  const pid_t reader = fork();
  if (reader < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (reader == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char line[8192];
    while (recv(fd, line, sizeof line, 0) >= 0 || errno == EINTR) {
    }
    _exit(1);
  }
  close(fd);
}

int RunBody(const std::string& folder, const std::function<int()>& body) try {
  Cover("/usr/local", folder, "usr-local");
  Cover("/tmp", folder, "tmp");
  StartLogReader();
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  return body();
} catch (const std::exception& error) {
  fprintf(stderr, "%s\n", error.what());
  return 1;
}

}  // namespace

int RunInWorld(const std::string& disk, const std::function<int()>& body) try {
  const std::string folder = NewFolder(disk);
  const int status =
      ZorvTest::RunInSandbox({ZORV_BINARY_DIR, folder}, [&] { return RunBody(folder, body); });
  fs::remove_all(folder);
  return status;
} catch (const std::exception& error) {
  fprintf(stderr, "%s\n", error.what());
  return kNoWorld;
}

void InstallEngine(const std::string& program) {
  fs::copy_file(program, "/sbin/btrfs", fs::copy_options::overwrite_existing);
}

void MustBe(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string(what) + " failed");
}

// ---- The share-to-task map ----------------------------------------------------------------------

namespace {

constexpr int kSnapshotsOfEach = 30;

}  // namespace

std::string ShareOf(int number) { return "share" + std::to_string(number); }

std::string TaskOf(int number) {
  char id[64];
  (void)snprintf(id, sizeof id, "%08x-0000-4000-8000-%012d", number * 2654435761U, number);
  return id;
}

void PutMap(int shares) {
  using namespace ZorvBtrfsUsage;
  Json::Value map(Json::objectValue);
  for (int share = 0; share < shares; ++share) {
    Json::Value& entry = map[ShareOf(share)];
    entry["task_id"] = TaskOf(share);
    entry["time"] = static_cast<Json::Int64>(time(nullptr));
    entry["volume_id"] = 1;
    for (int snapshot = 0; snapshot < kSnapshotsOfEach; ++snapshot) {
      char name[64];
      (void)snprintf(name, sizeof name, "GMT-2024.01.%02d-00.00.00", snapshot + 1);
      entry["snap_list"][name] = std::to_string(256 + share * kSnapshotsOfEach + snapshot);
    }
  }
  fs::create_directories(kLockDir);
  fs::create_directories(kPersistentDir);
  MustBe(Utils::SetJsonAttrByPath(kShareMap, map), "writing the map");
}

// ---- The share ----------------------------------------------------------------------------------

namespace {

constexpr int kFilesPerDir = 500;
constexpr int kRewrittenOneIn = 100;

ZorvTest::BtrfsOptions VolumeOptions() {
  ZorvTest::BtrfsOptions options;
  options.sizeMiB = 8192;
  return options;
}

std::string SnapshotName(int day) {
  char name[64];
  (void)snprintf(name, sizeof name, "GMT-2024.%02d.%02d-%02d.00.00", day / (28 * 24) % 12 + 1,
                 day / 24 % 28 + 1, day % 24);
  return name;
}

}  // namespace

SnapshotShare::SnapshotShare(const std::string& name, int files, int snapshots)
    : name_(name), volume_("/volume1", VolumeOptions()) {
  (void)volume_.Subvolume(name);
  for (int dir = 0; dir * kFilesPerDir < files; ++dir)
    fs::create_directory(volume_.Path(name + "/" + std::to_string(dir)));
  for (int day = 0; day < snapshots; ++day) {
    const int step = day == 0 ? 1 : kRewrittenOneIn;
    for (int file = day % step; file < files; file += step) WriteFileOf(file, day);
    paths_.push_back(volume_.Snapshot(name, name + "/.snapshots/" + SnapshotName(day)));
  }
  (void)ZorvTest::MustRun({"sync", "-f", volume_.MountPoint()});
}

void SnapshotShare::WriteFileOf(int file, int day) const {
  const std::string path =
      volume_.Path(name_ + "/" + std::to_string(file / kFilesPerDir) + "/" + std::to_string(file));
  const auto bytes = static_cast<size_t>(1024 * (1 + file * 7 % 16));
  ZorvTest::WriteFile(path, std::string(bytes, static_cast<char>('a' + day % 26)));
}

// ---- Calculations -------------------------------------------------------------------------------

namespace {

pid_t gCalculator = -1;  // the last one that was started

}  // namespace
}  // namespace ZorvBench

// Stands before the platform's function of this name and remembers whom it has started: a
// calculator is nobody's child, and others come to a subreaper too.
int PLATCProcForkChildNoWait(void) {
  static auto* const real =
      reinterpret_cast<int (*)()>(dlsym(RTLD_NEXT, "PLATCProcForkChildNoWait"));
  const int pid = real();
  if (pid > 0) ZorvBench::gCalculator = pid;
  return pid;
}

namespace ZorvBench {

ZorvBtrfsUsage::SzList ListOf(const std::vector<std::string>& texts) {
  ZorvBtrfsUsage::SzList list = ZorvBtrfsUsage::MakeSzList();
  for (const std::string& text : texts)
    if (PLATCSzListPush(ZorvBtrfsUsage::SzListRef(list), text.c_str()) < 0)
      throw std::runtime_error("no memory for a list");
  return list;
}

void Launch(const SnapshotShare& share) {
  ZorvBtrfsUsage::ShareSnapUsageCal cal;
  const int created = cal.CreateTask(share.Name());
  if (created != 0) throw std::runtime_error("CreateTask: " + std::to_string(created));
  ZorvBtrfsUsage::SzList paths = ListOf(share.Paths());
  const int launched = cal.Launch(ZorvBtrfsUsage::SzListRef(paths));
  if (launched != 0) throw std::runtime_error("Launch: " + std::to_string(launched));
}

void AwaitCalculator() {
  const int status = ZorvTest::WaitForExit(gCalculator);
  while (waitpid(-1, nullptr, WNOHANG) > 0) {  // the engine's worker, which nobody waits for
  }
  if (status != 0)
    throw std::runtime_error("the calculation ended with status " + std::to_string(status));
}

}  // namespace ZorvBench
