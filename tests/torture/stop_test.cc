// Stops at the worst moment: of calculations by SIGTERM, and of engines by the end of their reader.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <regex>

#include "tests/engine/busy_volume.h"
#include "tests/engine/held_row.h"
#include "tests/share_snap_calculator/share_fixture.h"
#include "tests/support/shared_memory.h"
#include "tests/support/torture.h"
#include "tests/torture/faulty_disk.h"
#include "tests/torture/lateness.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;

constexpr unsigned kWanted = 10000;  // runs of a long session
constexpr unsigned kAtLeast = 100;   // runs of each kind, however short the time
constexpr int kLanes = 5;            // calculations at a time
constexpr double kSoon = 1;

// What the runs of one kind came to.
struct Runs {
  std::atomic<unsigned> all{0}, stopped{0}, done{0}, failed{0}, signals{0};
  std::atomic<unsigned> wrongEnd{0}, left{0}, early{0};
  Lateness ends{kSoon};
};

// Calculations of one share, one after the other, each with a stop in it.
class Lane {
 public:
  Lane(Runs& runs, const NapClock& clock, int number, unsigned seed)
      : runs_(runs), clock_(clock), share_("share" + std::to_string(number)), random_(seed) {
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);  // its end is seen, and its number is nobody else's yet
    fork_.Replace([this] {
      const int pid = fork_.Real();
      if (pid > 0) calculator_ = pid;
      if (pid == 0) (void)dup2(STDOUT_FILENO, STDERR_FILENO);  // to /dev/null: notes of engines
      return pid;
    });
  }

  void Run() {
    ShareSnapUsageCal cal;
    if (cal.CreateTask(share_) != 0 || cal.Launch(nullptr, nullptr) != 0 || !FindTask())
      throw std::runtime_error("the calculation could not be started");
    const bool seen = WaitUntilItCanBeStopped();
    const bool atOnce = random_() % 4 == 0;  // the steps before the command is started are short
    if (seen && !atOnce) usleep(moment_.Next());
    const bool running = CommandRuns();
    const OwnTime time(clock_, calculator_);
    Stop();
    if (!atOnce) moment_.WasMet(!Ended());
    if (!WaitUntil([this] { return Ended(); })) GiveUp("it was stopped and has not ended");
    const double took = time.Seconds();
    const int code = WaitForExit(calculator_);
    // Only what was stopped while its command ran says how soon a stop is seen.
    if (took > kSoon || (running && code == 12)) runs_.ends.Take(took);
    ++runs_.all;
    if (!seen) ++runs_.early;
    CheckEnd(code);
    CheckNothingIsLeft(code);
  }

 private:
  bool FindTask() {
    bool expired = false;
    return ShareSnapUsageCal::FindTaskID(share_, task_, expired) == 0;
  }

  // False: it had ended by then.
  bool WaitUntilItCanBeStopped() const {
    while (!Ended()) {
      if (TaskPid() == std::to_string(calculator_)) return true;
      usleep(100);
    }
    return false;
  }

  // Without the lock and without a word to the log: the file is replaced whole.
  std::string TaskPid() const {
    std::smatch pid;
    std::ifstream file(TaskStatusPath(task_));
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    static const std::regex kPid("\"pid\" ?: ?\"([0-9]+)\"");
    if (text.find("\"process\"") == text.npos || !std::regex_search(text, pid, kPid)) return "";
    return pid[1];
  }

  bool Ended() const {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(calculator_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == calculator_;
  }

  // One signal, or a burst, through the library or past it.
  void Stop() {
    const unsigned burst = random_() % 3 == 0 ? 2 + random_() % 20 : 1;
    for (unsigned n = 0; n < burst; ++n) {
      if (random_() % 4 == 0)
        (void)ShareSnapUsageCal::Stop(share_);
      else
        (void)kill(calculator_, SIGTERM);
      ++runs_.signals;
      if (random_() % 4 == 0) usleep(random_() % 2000);
    }
  }

  // Whether it waits for words of its command.
  bool CommandRuns() const {
    const std::string process = std::to_string(calculator_);
    return !ReadFile("/proc/" + process + "/task/" + process + "/children").empty();
  }

  // State, code and exit status must be those of one outcome.
  void CheckEnd(int code) {
    const std::string state = ReadAttribute("status"), error = ReadAttribute("error_code");
    const char* const expected = code == 0 ? "done" : code == 12 ? "stop" : "fail";
    ++(code == 0 ? runs_.done : code == 12 ? runs_.stopped : runs_.failed);
    // Nothing makes these runs fail but a stop; that of the command is one.
    if (state == expected && error == std::to_string(code) && (code == 0 || code == 12) &&
        ReadAttribute("end_time") != "")
      return;
    ++runs_.wrongEnd;
    fprintf(stderr, "%s: exit status %d, state \"%s\", error_code \"%s\"\n", share_.c_str(), code,
            state.c_str(), error.c_str());
  }

  std::string ReadAttribute(const char* key) const {
    Json::Value status;
    std::istringstream text(ReadFile(ShareStatusPath(share_)));
    text >> status;
    return status[key].isString() ? status[key].asString() : "";
  }

  // The command and what it started are gone; of the task's files a stop leaves the status alone.
  void CheckNothingIsLeft(int code) {
    const bool alone = WaitUntil([] {
      while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
      return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
    });
    const std::string results = "/run/zorvbtrfssnapusage/task_result/" + task_;
    const bool files = std::filesystem::exists(results + ".result") ||
                       std::filesystem::exists(results + ".subvol_id") ||
                       (code == 0 && TaskStatus::CheckFile(task_));
    if (alone && !files) return;
    ++runs_.left;
    fprintf(stderr, "%s: exit status %d, processes are left: %d, files are left: %d\n",
            share_.c_str(), code, !alone, files);
    if (!alone) GiveUp("what is left would be found after each further run");
  }

  // Ends the lane, and with it the calculation with all that belongs to its session.
  [[noreturn]] void GiveUp(const char* why) const {
    (void)kill(-calculator_, SIGKILL);
    throw std::runtime_error(why);
  }

  Runs& runs_;
  const NapClock& clock_;
  const std::string share_;
  std::mt19937 random_;
  RandomMoment moment_{20000, 500000};
  PlatformHook<decltype(PLATCProcForkChildNoWait)> fork_{"PLATCProcForkChildNoWait"};
  pid_t calculator_ = -1;
  std::string task_;
};

// Names that end as those of temporary files do, anywhere below the roots.
std::vector<std::string> TemporaryFiles() {
  static const std::regex kTemporary(".*\\.[A-Za-z0-9]{6}");
  std::vector<std::string> found;
  for (const char* root : {kRunDir, kLockDir, kPersistentDir})
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      const std::string name = entry.path().filename();
      if (std::regex_match(name, kTemporary) && !name.ends_with(".result"))
        found.push_back(entry.path());
    }
  return found;
}

// Lock files that somebody holds.
std::vector<std::string> HeldLocks() {
  std::vector<std::string> held;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(kLockDir)) {
    if (!entry.is_regular_file()) continue;
    const UniqueFd fd(open(entry.path().c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock = OneByte(F_WRLCK, 0);
    lock.l_len = 0;
    if (fcntl(fd.Get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK)
      held.push_back(entry.path());
  }
  return held;
}

class StopCalculation : public ShareTest {
 protected:
  StopCalculation() {
    std::filesystem::rename("/dev/log", "/dev/log.aside");  // collecting would be most of the work
    for (int lane = 0; lane < kLanes; ++lane) {
      const std::string share = "share" + std::to_string(lane);
      volume_.Subvolume(share);
      for (const char* snapshot : {kFirst, kSecond, kThird}) {
        WriteRandom(volume_.Path(share + "/" + snapshot), 64 << 10, static_cast<unsigned>(lane));
        volume_.Snapshot(share, share + "/.snapshots/" + snapshot);
      }
    }
  }
  ~StopCalculation() override { std::filesystem::rename("/dev/log.aside", "/dev/log"); }

  // Runs in all lanes until the time, or a lane's share of `most` runs, has gone.
  void Stops(const Budget& budget, unsigned most) {
    std::vector<pid_t> lanes;
    for (int number = 0; number < kLanes; ++number) {
      lanes.push_back(fork());
      if (lanes.back() != 0) continue;
      try {
        Lane lane(*runs_, clock_, number, static_cast<unsigned>(number) + 1);
        for (unsigned run = 0; run < most / kLanes && (run < kAtLeast / kLanes || budget.IsLeft());
             ++run)
          lane.Run();
      } catch (const std::exception& error) {
        fprintf(stderr, "share%d: %s\n", number, error.what());
        _exit(1);
      }
      _exit(0);
    }
    for (const pid_t lane : lanes) EXPECT_EQ(0, WaitForExit(lane));
    Say(most);
    EXPECT_EQ(std::vector<std::string>{}, TemporaryFiles());
    EXPECT_EQ(std::vector<std::string>{}, HeldLocks());
  }

  void Say(unsigned most) {
    Figure("runs", runs_->all);
    Figure("of runs", most);
    Figure("signals", runs_->signals);
    Figure("stopped", runs_->stopped);
    Figure("done before", runs_->done);
    Figure("wrong ends", runs_->wrongEnd);
    Figure("left something", runs_->left);
    EXPECT_EQ(0u, runs_->wrongEnd);
    EXPECT_EQ(0u, runs_->failed);
    EXPECT_EQ(0u, runs_->left);
    EXPECT_LT(0u, runs_->stopped);
    EXPECT_LE(kAtLeast, runs_->all);
    runs_->ends.Judge();
  }

  BtrfsVolume volume_{"/volume1"};
  const SharedMemory<Runs> runs_;
  const NapClock clock_;
};

// Each line costs the calculation some writing: it is in the middle of its run for a while.
TEST_F(StopCalculation, OfAQuickCommand) {
  WriteScript("/sbin/btrfs", R"(
for n in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
  echo "processed ${n}000 bytes"; echo "exclusive $n bytes"
done
shift 5
for id; do echo "subvol($id) ${id}0 bytes"; done
)");
  Stops(Budget(0.35), kWanted / 2);
}

TEST_F(StopCalculation, OfTheEngine) {
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs",
                             std::filesystem::copy_options::overwrite_existing);
  Stops(Budget(0.25), kWanted * 2 / 5);
  EXPECT_EQ(0, SomebodyInRow(RowOf("/volume1")));
}

// It says how far it is while it waits for its turn, which lets the calculation see the stop.
TEST_F(StopCalculation, OfAnEngineThatWaits) {
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs",
                             std::filesystem::copy_options::overwrite_existing);
  HeldRow held(RowOf("/volume1"));
  Stops(Budget(0.1), kWanted / 10);
  EXPECT_EQ(0u, runs_->done);
  EXPECT_EQ(std::vector<pid_t>{held.Holder()}, RunsInRow(RowOf("/volume1")));
}

// ---- The engine and its reader ------------------------------------------------------------------

constexpr double kAtOnce = 0.2;
constexpr unsigned kReaders = 20;  // that leave in each case, however short the time

// Takes readers away from engines, and judges how long the fronts were there still.
class Departures {
 public:
  // False: the front had ended by itself, which says nothing of that.
  bool Take(EngineProcess& engine) {
    const bool ended = engine.FrontEndsWithin(0);
    const OwnTime time(clock_, engine.Front());
    engine.LeaveAsReader();
    if (!engine.FrontEndsWithin()) throw std::runtime_error("the front does not end");
    if (ended) return false;
    ends_.Take(time.Seconds());
    ++count_;
    return true;
  }

  unsigned Count() const { return count_; }
  void Judge() const { ends_.Judge(); }

 private:
  const NapClock clock_;
  Lateness ends_{kAtOnce};
  unsigned count_ = 0;
};

class StopReading : public testing::Test {
 protected:
  StopReading() {
    volume_.Subvolume("live");
    for (unsigned n = 0; n < 10; ++n) {
      WriteRandom(volume_.Path("live/file"), 300000, n);
      paths_.push_back(volume_.Snapshot("live", "snap" + std::to_string(n)));
    }
    row_ = RowOf(volume_.MountPoint());
  }

  std::unique_ptr<EngineProcess> Engine(const char* options = "-vpm") const {
    std::vector<std::string> args = {options};
    args.insert(args.end(), paths_.begin(), paths_.end());
    return std::make_unique<EngineProcess>(args);
  }

  // What the worker does in the kernel's hands is no reason to keep others waiting.
  bool Leave(EngineProcess& engine) {
    const bool timed = departures_.Take(engine);
    EXPECT_EQ(0, SomebodyInRow(row_));
    return timed;
  }

  BtrfsVolume volume_{"/volume1"};
  std::vector<std::string> paths_;
  std::string row_;
  Departures departures_;
};

TEST_F(StopReading, AtRandomMoments) {
  const Budget budget(0.06);
  RandomMoment moment;
  for (int n = 0; departures_.Count() < kReaders || budget.IsLeft(); ++n) {
    ASSERT_LT(n, 100000) << "every run ended before its reader left";
    const auto engine = Engine();
    usleep(moment.Next());
    moment.WasMet(Leave(*engine));
    EXPECT_TRUE(WaitUntil([&] { return engine->WorkerEnded(); }));
  }
  departures_.Judge();
}

// It prints no progress, and so does not come upon the reader's end by writing.
TEST_F(StopReading, WhileTheWorkerIsStopped) {
  const Budget budget(0.06);
  for (int n = 0; departures_.Count() < kReaders || budget.IsLeft(); ++n) {
    ASSERT_LT(n, 100000) << "every run ended before it could be stopped";
    const auto engine = Engine("-vm");
    if (!engine->StopWorker(static_cast<useconds_t>(n % 20) * 500)) continue;
    (void)Leave(*engine);
    EXPECT_TRUE(WaitUntil([&] { return engine->WorkerEnded(); }));
  }
  departures_.Judge();
}

TEST_F(StopReading, WhileItWaitsForItsTurn) {
  const Budget budget(0.06);
  HeldRow held(row_);
  while (departures_.Count() < kReaders || budget.IsLeft()) {
    const auto engine = Engine();
    char byte = 0;
    ASSERT_EQ(1, read(engine->Out().Get(), &byte, 1));  // progress: it waits
    (void)departures_.Take(*engine);
    EXPECT_TRUE(WaitUntil([&] { return engine->WorkerEnded(); }));
  }
  held.Release();
  EXPECT_EQ(0, SomebodyInRow(row_));
  departures_.Judge();
}

// There is nothing to commit then, and reading goes on; what would write waits for the thaw.
TEST_F(StopReading, WhileTheFileSystemIsFrozen) {
  const Budget budget(0.06);
  std::vector<std::unique_ptr<EngineProcess>> engines;
  RandomMoment moment;
  {
    WriteFile(volume_.Path("dirty"), "x");
    const Freeze freeze(volume_.MountPoint());
    for (int n = 0;
         departures_.Count() < kReaders || (departures_.Count() < 500 && budget.IsLeft()); ++n) {
      ASSERT_LT(n, 100000) << "every run ended before it could be stopped";
      auto engine = Engine();
      const bool met = engine->StopWorker(moment.Next());
      moment.WasMet(met);
      if (!met) continue;
      engine->ContinueWorker();
      (void)Leave(*engine);
      engines.push_back(std::move(engine));
    }
  }
  for (const auto& engine : engines)
    EXPECT_TRUE(WaitUntil([&] { return engine->WorkerEnded(); })) << "after the thaw";
  volume_.Unmount();  // nobody holds it any more
  volume_.Mount();
  departures_.Judge();
}

// Every read of the device hangs, and the kernel does not let the worker go.
TEST(StopReadingADeadDisk, EndsTheFront) {
  const Budget budget(0.06);
  Departures departures;
  const std::string image = "/tmp/dead.img";
  MustRun({"truncate", "-s", "256M", image});
  MustRun({"mkfs.btrfs", "-q", image});
  FaultyDisk disk(image, "/tmp/dead.disk");
  std::string loop = MustRun({"losetup", "-f", "--show", disk.Path()});
  loop.pop_back();
  std::filesystem::create_directories("/volume2");
  MustRun({"mount", loop, "/volume2"});
  MustRun({kStockBtrfs, "subvolume", "create", "/volume2/share"});
  MustRun({"sync", "-f", "/volume2"});
  const std::string row = RowOf("/volume2");
  std::vector<std::unique_ptr<EngineProcess>> engines;
  const size_t dead =
      disk.Add({.begin = 0, .size = 256u << 20, .kind = DiskFault::kDelay, .detail = 600000});
  for (unsigned n = 0; n < kReaders / 2 || (n < kReaders && budget.IsLeft()); ++n) {
    const unsigned reads = disk.Hits(dead);
    engines.push_back(
        std::make_unique<EngineProcess>(std::vector<std::string>{"-vpm", "/volume2/share"}));
    ASSERT_TRUE(WaitUntil([&] { return disk.Hits(dead) > reads || n > 0; }));
    (void)engines.back()->StopWorker(50000);
    engines.back()->ContinueWorker();
    (void)departures.Take(*engines.back());
    EXPECT_EQ(0, SomebodyInRow(row));
  }
  disk.Clear();
  for (const auto& engine : engines)
    EXPECT_TRUE(WaitUntil([&] { return engine->WorkerEnded(); })) << "once the disk answers";
  MustRun({"umount", "/volume2"});
  MustRun({"losetup", "-d", loop});
  departures.Judge();
}

}  // namespace
}  // namespace ZorvTest
