// The power goes while shares are calculated, cleaned and the reminder is toggled: what is found
// afterwards is whole, and nothing that somebody relied upon has gone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "base/paths.h"
#include "base/sz_list.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"
#include "tests/support/torture.h"
#include "tests/torture/file_history.h"
#include "tests/torture/power_cut_disk.h"
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

// The persistent directory is made by the product, so its parent is what lies on the disk.
constexpr char kMountPoint[] = "/usr/local";

constexpr char kVolume[] = "/volume1";
constexpr int kShares = 3;
constexpr int kSnapshots = 2;

// Of one round of work, then its cuts are looked at: mounting takes longer than cutting.
constexpr double kRoundSeconds = 1.5;

// However busy the machine is.
constexpr unsigned kFewestCuts = 25;

// One calculation in three is real. The others tell progress in quick succession, in a status that
// is long when the last calculation failed, and one in four of them fails.
constexpr char kCommand[] = R"sh(
case $((RANDOM % 3)) in
  0) exec "$ENGINE" "$@" ;;
esac
for ((i = 1; i <= 12; ++i)); do
  echo "processed $((i * 4096)) bytes"
  ((i % 4)) || sleep 0.00$((RANDOM % 10))
  echo "exclusive $((i * 16384)) bytes"
done
if ! ((RANDOM % 4)); then echo "subvol(none)"; exit 1; fi
for id in "${@:6}"; do echo "subvol($id) $((id * 4096)) bytes"; done
)sh";

std::string ShareName(int share) { return "share" + std::to_string(share); }

std::string SnapshotPath(int share, int snapshot) {
  return ShareName(share) + "/.snapshots/GMT-2024.01.0" + std::to_string(snapshot + 1) +
         "-00.00.00";
}

// What one process does until it is told to end. Whatever goes wrong in there throws, and its exit
// status tells.
class Worker {
 public:
  Worker(HistoryRecorder& recorder, unsigned seed) : recorder_(recorder), random_(seed) {
    // The library's own waits are drawn there.
    srand(seed);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
  }

  void Calculate(int share) {
    SzList paths = MakeSzList();
    for (int snapshot = 0; snapshot < kSnapshots; ++snapshot)
      (void)PLATCSzListPush(SzListRef(paths),
                            (std::string(kVolume) + "/" + SnapshotPath(share, snapshot)).c_str());
    ShareSnapUsageCal calculation;
    if (calculation.CreateTask(ShareName(share)) != RESULT_OK)
      throw std::runtime_error("no task for " + ShareName(share));
    recorder_.Rely();
    Pause();
    if (calculation.Launch(SzListRef(paths)) != RESULT_OK)
      throw std::runtime_error("no launch for " + ShareName(share));
    recorder_.Rely();
    while (wait(nullptr) > 0) continue;  // the calculator, which is nobody else's child
    Pause();
    if (random_() % 4 != 0) return;
    ShareSnapUsageCal::CleanAll(ShareName(share));
    recorder_.Rely();
    Pause();
  }

  void ToggleReminder() {
    if (!Utils::ReminderStatusSet(on_ = !on_)) throw std::runtime_error("no reminder");
    recorder_.Rely();
    Pause();
  }

 private:
  // Without moments in which nobody syncs, one's missing sync would be done by another's.
  void Pause() { usleep(static_cast<useconds_t>(random_() % 30000)); }

  HistoryRecorder& recorder_;
  std::mt19937 random_;
  bool on_ = false;
};

// The processes that work on the disk.
class Load {
 public:
  Load(HistoryRecorder& recorder, unsigned seed) {
    if (pipe2(stop_, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("no pipe");
    for (int share = 0; share < kShares; ++share)
      Start(recorder, seed + static_cast<unsigned>(share),
            [share](Worker& worker) { worker.Calculate(share); });
    Start(recorder, seed + kShares, [](Worker& worker) { worker.ToggleReminder(); });
  }

  // Ends the work; false: it had not gone well.
  bool Stop() {
    close(stop_[1]);
    bool well = true;
    for (const pid_t worker : workers_) well = WaitForExit(worker) == 0 && well;
    close(stop_[0]);
    return well;
  }

 private:
  template <typename Work>
  void Start(HistoryRecorder& recorder, unsigned seed, const Work& work) {
    const pid_t pid = fork();
    if (pid == 0) _exit(WorkUntilStopped(recorder, seed, work));
    workers_.push_back(pid);
  }

  template <typename Work>
  int WorkUntilStopped(HistoryRecorder& recorder, unsigned seed, const Work& work) {
    close(stop_[1]);
    try {
      Worker worker(recorder, seed);
      char nothing;
      while (read(stop_[0], &nothing, 1) != 0) work(worker);  // -1 while the other end is open
      return 0;
    } catch (const std::exception& e) {
      fprintf(stderr, "a worker gave up: %s\n", e.what());
      return 1;
    }
  }

  int stop_[2];
  std::vector<pid_t> workers_;
};

struct Counts {
  unsigned long long cuts = 0, states = 0, absent = 0, behind = 0, leftOver = 0;
};

// All plain files of the product as the disk has them.
std::map<std::string, std::string> FilesFound() {
  std::map<std::string, std::string> files;
  if (!std::filesystem::exists(kPersistentDir)) return files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(kPersistentDir))
    if (entry.is_regular_file()) files[entry.path()] = ReadFile(entry.path());
  return files;
}

std::string Shown(const std::optional<std::string>& content) {
  if (!content) return "no file";
  if (content->empty()) return "an empty file";
  std::string text;
  for (const char c : content->substr(0, 600)) text += c >= ' ' && c <= '~' ? c : '?';
  return std::to_string(content->size()) + " bytes: " + text;
}

// A file that was about to take another's place when the power went.
bool IsTemporary(const std::string& path) {
  const std::string name = std::filesystem::path(path).filename();
  return name.find(".zorvcopy.") != std::string::npos ||
         (name.size() > 7 && name[name.size() - 7] == '.');
}

void CheckFiles(const std::map<std::string, FileHistory>& histories, const Cut& cut,
                Counts& counts) {
  std::map<std::string, std::string> found = FilesFound();
  for (const auto& [path, history] : histories) {
    std::optional<std::string> content;
    if (const auto file = found.find(path); file != found.end()) content = file->second;
    found.erase(path);
    EXPECT_TRUE(history.Allows(content, cut))
        << path << "\nrelied upon: " << Shown(history.Relied(cut).content)
        << "\nfound: " << Shown(content);
    ++(content ? counts.states : counts.absent);
    counts.behind += history.IsBehind(content, cut);
  }
  for (const auto& [path, content] : found) {
    EXPECT_TRUE(IsTemporary(path)) << path << " was never written: " << Shown(content);
    ++counts.leftOver;
  }
}

class PowerCut : public testing::Test {
 protected:
  PowerCut() : volume_(kVolume) {
    for (int share = 0; share < kShares; ++share) {
      volume_.Subvolume(ShareName(share));
      for (int snapshot = 0; snapshot < kSnapshots; ++snapshot) {
        WriteRandom(volume_.Path(ShareName(share) + "/file"), 64 << 10, 1);
        volume_.Snapshot(ShareName(share), SnapshotPath(share, snapshot));
      }
    }
    WriteScript(kBtrfsProgram, std::string("ENGINE=") + ZORV_ENGINE_PATH + "\n" + kCommand);
  }

  // Works on a fresh disk for a while, takes the power away again and again, and looks at each
  // outcome.
  void Round(const DiskOptions& options) {
    PowerCutDisk disk(store_, kMountPoint, options);
    HistoryRecorder recorder;
    Load load(recorder, static_cast<unsigned>(random_()));
    std::vector<Cut> cuts;
    const double end = Seconds() + kRoundSeconds;
    while (Seconds() < end) {
      usleep(static_cast<useconds_t>(random_() % 100000));
      cuts.push_back(disk.TakeCut());
    }
    ASSERT_TRUE(load.Stop());
    disk.Unmount();
    const std::map<std::string, FileHistory> histories = recorder.Read();
    for (const Cut& cut : cuts) {
      disk.LookAt(cut, [&] { CheckFiles(histories, cut, counts_); });
      ++counts_.cuts;
      if (HasFailure()) return;
    }
  }

  void CutUntilTheTimeIsUp(const DiskOptions& options, double part) {
    const Budget budget(part);
    do Round(options);
    while (!HasFailure() && (budget.IsLeft() || counts_.cuts < kFewestCuts));
    Figure("cuts, each mounted", counts_.cuts);
    Figure("files whole", counts_.states);
    Figure("files absent as they may be", counts_.absent);
    Figure("newer states taken away as they may be", counts_.behind);
    Figure("temporary files left", counts_.leftOver);
    Figure("lost or torn", HasFailure());
    EXPECT_GT(counts_.behind, 0u) << "no cut took anything away: these were no power cuts";
  }

 private:
  BtrfsVolume volume_;
  CloneStore store_;
  std::mt19937 random_{std::random_device{}()};
  Counts counts_;
};

}  // namespace

// The journal is not written but when somebody asks for it.
TEST_F(PowerCut, OnExt4) { CutUntilTheTimeIsUp({"ext4", 64, "commit=600"}, 0.2); }

// Without what this file system does for programs that rename and do not sync.
TEST_F(PowerCut, OnExt4WithoutItsHelp) {
  CutUntilTheTimeIsUp({"ext4", 64, "commit=600,noauto_da_alloc"}, 0.25);
}

TEST_F(PowerCut, OnBtrfs) { CutUntilTheTimeIsUp({"btrfs", 128, "commit=300"}, 0.3); }

// What writes bytes out elsewhere writes nothing out there.
TEST_F(PowerCut, OnAnOverlay) {
  CutUntilTheTimeIsUp({"ext4", 64, "commit=600,noauto_da_alloc", true}, 0.25);
}
