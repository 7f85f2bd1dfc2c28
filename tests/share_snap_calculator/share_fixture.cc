#include "tests/share_snap_calculator/share_fixture.h"

#include <errno.h>
#include <json/reader.h>
#include <json/value.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "zorvbtrfssnapusage/utils.h"

namespace ZorvTest {

using namespace ZorvBtrfsUsage;

std::string Tail(unsigned int code, const std::string& file, unsigned int line) {
  char text[512];
  (void)snprintf(text, sizeof text, "[0x%04X %s:%u]", code, file.c_str(), line);
  return text;
}

std::string HookTail(unsigned int code) { return Tail(code, "tests/hook", 1); }

std::string TimeText(time_t t) {
  std::string text;
  if (!Utils::Time_tToTimeString(t, text)) throw std::runtime_error("no time text");
  return text;
}

void PutDirectory(const std::string& path) {
  std::filesystem::remove_all(path);
  std::filesystem::create_directories(path);
}

ReadOnlyDir::ReadOnlyDir(const std::string& path) : path_(path) {
  if (mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
      mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
    throw std::runtime_error("cannot mount " + path + " read-only: " + strerror(errno));
}

ReadOnlyDir::~ReadOnlyDir() { (void)umount2(path_.c_str(), MNT_DETACH); }

UnwritableFile::UnwritableFile(const std::string& path, int first) {
  rename_.Replace([this, path, first](const char* from, const char* to) {
    if (path != to || ++calls_ < first) return rename_.Real(from, to);
    errno = EIO;
    return -1;
  });
}

KnownShares::KnownShares(const std::vector<std::string>& names) {
  enum_.Replace([names](PLATSZLIST** list, int flags) {
    if (flags != 0x301) return -1;
    for (const std::string& name : names) PLATCSzListPush(list, name.c_str());
    return static_cast<int>(names.size());
  });
}

Clock::Clock(time_t now) : now_(now) {
  time_.Replace([this](time_t* out) {
    if (out != nullptr) *out = now_;
    return now_;
  });
}

// ---- ShareTest ----------------------------------------------------------------------------------

ShareTest::ShareTest() {
  for (const char* dir : {kRunDir, kLockDir, kPersistentDir}) std::filesystem::remove_all(dir);
  PLATCErrSetEx(0, "", 0);
}

void ShareTest::PutMap(const std::string& json) { WriteFile(kShareMap, json); }

std::string ShareTest::MapText() {
  return std::filesystem::exists(kShareMap) ? ReadFile(kShareMap) : "";
}

std::string ShareTest::Entry(const std::string& taskID, time_t created,
                             const std::string& snapList) {
  return R"({"snap_list":)" + snapList + R"(,"task_id":")" + taskID + R"(","time":)" +
         std::to_string(created) + "}";
}

void ShareTest::PutShareStatus(const std::string& share, const std::string& json) {
  WriteFile(ShareStatusPath(share), json);
}

void ShareTest::PutTaskStatus(const std::string& taskID, const std::string& json) {
  WriteFile(TaskStatusPath(taskID), json);
}

std::string ShareTest::ShareStatus(const std::string& share, const std::string& key) {
  Json::Value status;
  std::istringstream text(ReadFile(ShareStatusPath(share)));
  text >> status;
  return status.isMember(key) ? status[key].asString() : "";
}

int ShareTest::Errors(const std::string& message) {
  return syslog_.CountExact(LOG_ERR, kShareUnit, message);
}

int ShareTest::InvalidArguments(const std::string& condition) {
  return Errors("Invaild Argument (" + condition + ")=[0]\n");
}

int ShareTest::LinesOfUnit() { return syslog_.Count(std::string(kShareUnit) + ":"); }

// ---- VolumeTest ---------------------------------------------------------------------------------

BtrfsVolume* VolumeTest::volume1_ = nullptr;
BtrfsVolume* VolumeTest::volume2_ = nullptr;

void VolumeTest::SetUpTestSuite() {
  // A calculator is nobody's child; its end is seen by the nearest subreaper.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  volume1_ = new BtrfsVolume("/volume1");
  volume2_ = new BtrfsVolume("/volume2");
  const struct {
    BtrfsVolume& volume;
    std::string share;
    std::vector<std::string> snapshots;
  } shares[] = {
      {*volume1_, "photos", {kFirst, kSecond, kThird}},
      {*volume1_, "docs", {kFirst}},
      {*volume2_, "music", {kFirst}},
  };
  unsigned seed = 1;
  for (const auto& s : shares) {
    s.volume.Subvolume(s.share);
    for (const std::string& snapshot : s.snapshots) {
      WriteRandom(s.volume.Path(s.share + "/" + snapshot), 64 << 10, seed++);
      s.volume.Snapshot(s.share, s.share + "/.snapshots/" + snapshot);
    }
  }
}

void VolumeTest::TearDownTestSuite() {
  delete volume1_;
  delete volume2_;
}

VolumeTest::VolumeTest() {
  WriteScript("/sbin/btrfs", std::string(R"(
echo "$0 $*" > )") + kCalledWith +
                                 R"(
total=0
for id in "${@:6}"; do
  echo "subvol($id) $((id * 4096)) bytes"
  total=$((total + id * 4096))
done
echo "exclusive $total bytes"
echo "processed $total bytes"
)");
  fork_.Replace([this] {
    const int pid = fork_.Real();
    if (pid > 0) calculator_ = pid;
    return pid;
  });
}

std::string VolumeTest::SnapPath(const std::string& share, const std::string& snapshot) {
  const std::string volume = share == "music" ? "/volume2/" : "/volume1/";
  return volume + share + "/.snapshots/" + snapshot;
}

std::vector<std::string> VolumeTest::PhotosPaths() {
  return {SnapPath("photos", kFirst), SnapPath("photos", kSecond), SnapPath("photos", kThird)};
}

int VolumeTest::WaitForCalculator() { return WaitForExit(calculator_); }

}  // namespace ZorvTest
