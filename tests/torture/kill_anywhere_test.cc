// SIGKILL at each system call that changes a file, before it and after it, in every process of a
// calculation: what stands then is whole, nothing is held or left running, and the share comes
// back by each of the ways that are told to bring it back.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"
#include "tests/support/syscall_stepper.h"
#include "tests/support/torture.h"
#include "tests/torture/record_ledger.h"
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"
#include "zorvbtrfssnapusage/share_task_status.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;
using Sizes = std::map<unsigned long long, unsigned long long>;

constexpr char kEngine[] = "/sbin/btrfs";
constexpr char kShare[] = "photos";
constexpr char kNeighbour[] = "mail";  // recorded beside it, and never touched
constexpr char kOutput[] = "/tmp/tool.out";

// Tables of the share that the tool keeps.
constexpr char kCache[] = "/var/cache/zorv-snapusage";
constexpr char kTables[] = "/var/cache/zorv-snapusage/photos";

// How the share is brought back; the command's next run is enough where nothing was calculated.
enum class Cleanup { kTool, kNotDone, kExpiry, kNextRun };

const char* NameOf(Cleanup cleanup) {
  switch (cleanup) {
    case Cleanup::kTool:
      return "zorv-snapusage clean";
    case Cleanup::kNotDone:
      return "CleanNotDoneTask";
    case Cleanup::kNextRun:
      return "the next run";
    case Cleanup::kExpiry:
      break;
  }
  return "expiry";
}

// A way to a calculation, and who is killed on it.
struct Road {
  Role victim;
  std::function<int()> body;
  std::function<void()> prepare = [] {};
  // The worker stands still until the caller has ended: there is something to stop.
  bool holdWorker = false;
  // With the victim all others are killed.
  bool killAll = false;
  // The neighbour's record may go, too.
  bool takesNeighbour = false;
  std::vector<Cleanup> cleanups = {Cleanup::kTool, Cleanup::kNotDone, Cleanup::kExpiry};
  // What stands after a kill is right, and the next run is.
  std::function<void()> nextRun = [] {};

  // In how many ways a process is killed at one step.
  size_t Ways() const { return 2 * cleanups.size(); }
};

// One way to kill: all ways of a road have numbers from 0 on.
struct Way {
  size_t step;  // of the victim's role, from 1
  bool after;
  Cleanup cleanup;

  Way(const Road& road, size_t number)
      : step(number / road.Ways() + 1),
        after(number % 2 == 1),
        cleanup(road.cleanups[number / 2 % road.cleanups.size()]) {}
};

// The calculation goes on without its caller; here it is waited for.
void WaitForEverybody() {
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

std::vector<std::string> Argv(const std::vector<std::string>& words) {
  std::vector<std::string> argv = {ZORV_CLI_PATH};
  argv.insert(argv.end(), words.begin(), words.end());
  return argv;
}

// To its end, and to that of the calculation that it may have started.
CommandResult Tool(const std::vector<std::string>& words) {
  CommandResult result = Run(Argv(words));
  WaitForEverybody();
  return result;
}

void MustTool(const std::vector<std::string>& words) {
  const CommandResult result = Tool(words);
  ASSERT_EQ(0, result.status) << result.out << result.err;
}

std::function<int()> ToolBody(const std::vector<std::string>& words) {
  return Program(Argv(words), kOutput);
}

// What a program does that links the library.
int Launch() {
  ShareSnapUsageCal cal;
  const int code = cal.CreateTask(kShare);
  return code != RESULT_OK ? code : cal.Launch(nullptr, nullptr);
}

// Launch, and what else such a program writes.
int CallLibrary(bool reminder) {
  if (const int code = Launch(); code != RESULT_OK) return code;
  return Utils::ReminderStatusSet(reminder) ? RESULT_OK : RESULT_FAILURE;
}

// Sees that a worker does not outlive its front.  It stands still when the front is killed, so that
// it cannot come to its own end; it goes on when the front is gone.
class Orphan {
 public:
  void See(const Step& step) {
    if (step.role == Role::kWorker) worker_ = step.pid;
  }

  void FrontIsKilled() {
    wasHeld_ =
        worker_ != 0 && kill(worker_, SIGSTOP) == 0 && WaitUntil([this] { return Stands(); }, 0.1);
  }

  void TakeEnd(Role role, int status) {
    if (role == Role::kFront && wasHeld_) (void)kill(worker_, SIGCONT);
    if (role != Role::kWorker) return;
    if (wasHeld_) {
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "it outlived its front";
      ++gone_;
    }
    worker_ = 0;
  }

  size_t Gone() const { return gone_; }

 private:
  // Stopped, by the signal or by who watches its calls.
  bool Stands() const {
    const std::string stat = ReadFile("/proc/" + std::to_string(worker_) + "/stat");
    const size_t name = stat.rfind(')');
    return name != std::string::npos && std::string("Tt").find(stat[name + 2]) != std::string::npos;
  }

  pid_t worker_ = 0;
  bool wasHeld_ = false;
  size_t gone_ = 0;
};

std::set<std::string> Processes() {
  std::set<std::string> found;
  for (const auto& entry : fs::directory_iterator("/proc"))
    if (std::string name = entry.path().filename();
        name.find_first_not_of("0123456789") == std::string::npos)
      found.insert(name);
  return found;
}

// Everybody but this process, the first one of the world, and `kept`.
void KillAllBut(pid_t kept) {
  for (const std::string& process : Processes())
    if (const pid_t pid = stoi(process); pid != 1 && pid != getpid() && pid != kept)
      (void)kill(pid, SIGKILL);
}

size_t Descriptors() {
  return static_cast<size_t>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// Loop devices on this image; others on the machine are other programs'.
size_t LoopsOn(const std::string& image) {
  size_t loops = 0;
  for (const auto& device : fs::directory_iterator("/sys/block")) {
    std::ifstream backing(device.path() / "loop/backing_file");
    std::string path;
    if (std::getline(backing, path) && path == image) ++loops;
  }
  return loops;
}

// What a calculation must not leave behind. Mounts are compared as a whole: their text is long.
struct Machine {
  explicit Machine(const std::string& image) : loops(LoopsOn(image)) {}

  void ExpectSame(const Machine& now) const {
    EXPECT_EQ(processes, now.processes);
    EXPECT_EQ(descriptors, now.descriptors);
    EXPECT_EQ(loops, now.loops);
    EXPECT_TRUE(mounts == now.mounts) << now.mounts;
  }

  std::set<std::string> processes = Processes();
  size_t descriptors = Descriptors();
  size_t loops;
  std::string mounts = ReadFile("/proc/self/mountinfo");
};

std::vector<std::string> LockFiles() {
  std::vector<std::string> files;
  for (const char* root : {kLockDir, "/run/zorv-btrfs-engine"}) {
    if (!fs::exists(root)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root))
      if (entry.is_regular_file()) files.push_back(entry.path());
  }
  if (fs::exists("/run/zorv-snapusage.lock")) files.push_back("/run/zorv-snapusage.lock");
  return files;
}

// Locks that outlive the process which took them: of a dead one, of an open file that others have
// got from it (fcntl(2) names no process then), or of the other kind, flock(2).
std::string LocksThatOutlive(pid_t dead) {
  std::string found;
  for (const std::string& path : LockFiles()) {
    const UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    const bool told = fcntl(fd.Get(), F_GETLK, &lock) == 0;
    if (told && lock.l_type != F_UNLCK && (lock.l_pid == dead || lock.l_pid <= 0))
      found += path + " is locked by " + std::to_string(lock.l_pid) + "\n";
    if (flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) found += path + " is locked by flock\n";
  }
  return found;
}

// Locks that cannot be had at once.
std::string LocksThatAreHeld() {
  std::string found;
  for (const std::string& path : LockFiles()) {
    const UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    if (fcntl(fd.Get(), F_SETLK, &lock) != 0) found += path + " cannot be locked\n";
  }
  return found;
}

std::string TaskOf(const std::string& share) {
  std::string taskID;
  bool expired = false;
  return ShareSnapUsageCal::FindTaskID(share, taskID, expired) == RESULT_OK ? taskID : "";
}

std::string StateOf(const std::string& share) {
  ShareTaskStatus status;
  std::string word;
  if (!ShareTaskStatus::CheckShareStatusFile(share) || !status.Init(share, /*create=*/false))
    return "";
  return status.GetStatusAttr(TASKSTATUS_ATTR_STATUS, word) == RESULT_OK ? word : "";
}

// The share's result as readers get it; nothing when they get none.
Sizes ResultOf(const std::string& share) {
  std::vector<unsigned long long> ids, bytes;
  if (ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, share, ids) != RESULT_OK ||
      ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, share, bytes) != RESULT_OK)
    return {};
  Sizes sizes;
  for (size_t i = 0; i < ids.size(); ++i) sizes[ids[i]] = i < bytes.size() ? bytes[i] : 0;
  return sizes;
}

// Files of all tasks in the volatile directories.
size_t FilesOfTasks() {
  size_t count = 0;
  for (const char* directory : {kTaskStatusDir, kTaskResultDir})
    if (fs::exists(directory))
      count += static_cast<size_t>(std::distance(fs::directory_iterator(directory), {}));
  return count;
}

// Files of a task in the volatile directories.
std::vector<std::string> FilesOfTask(const std::string& taskID) {
  std::vector<std::string> files;
  for (const char* directory : {kTaskStatusDir, kTaskResultDir}) {
    if (taskID.empty() || !fs::exists(directory)) continue;
    for (const auto& entry : fs::directory_iterator(directory))
      if (entry.path().filename().string().rfind(taskID, 0) == 0) files.push_back(entry.path());
  }
  return files;
}

// Two minutes pass for the share's claim.
void Expire() {
  Json::Value map = Utils::GetJsonAttrByPath(kShareMap);
  if (!map.isMember(kShare)) return;
  map[kShare]["time"] = static_cast<Json::Int64>(time(nullptr) - 120);
  ASSERT_TRUE(Utils::SetJsonAttrByPath(kShareMap, map));
}

bool IsPartOf(const Sizes& part, const Sizes& whole) {
  return std::includes(whole.begin(), whole.end(), part.begin(), part.end());
}

// Kept tables by their names, or those that are being written.
std::map<std::string, std::string> Tables(bool unfinished) {
  std::map<std::string, std::string> tables;
  if (!fs::exists(kTables)) return tables;
  for (const auto& entry : fs::directory_iterator(kTables))
    if (const std::string name = entry.path().filename(); (name[0] == '.') == unfinished)
      tables[name] = ReadFile(entry.path());
  return tables;
}

// What killed writers have left beside their targets.
std::vector<std::string> Leftovers() {
  std::vector<std::string> files = TemporaryFiles();
  for (const auto& table : Tables(/*unfinished=*/true))
    files.push_back(std::string(kTables) + "/" + table.first);
  return files;
}

// What the tool shows, with its exit status.
struct Shown {
  int status;
  Sizes sizes;
};

Shown Show() {
  const CommandResult result = Tool({"show", kShare, "--format", "json"});
  Shown shown = {result.status, {}};
  if (result.out.empty()) return shown;
  Json::Value report;
  std::istringstream(result.out) >> report;
  for (const Json::Value& row : report["snapshots"])
    shown.sizes[row["subvolume_id"].asUInt64()] = row["exclusive"].asUInt64();
  return shown;
}

// Keeps the worker of a calculation from going on (SIGSTOP) for as long as the caller lives.
class WorkerHold {
 public:
  explicit WorkerHold(bool wanted) : wanted_(wanted) {}

  void Take(const Step& step) {
    if (!wanted_ || step.role != Role::kWorker) return;
    wanted_ = false;
    held_ = step.pid;
    kill(held_, SIGSTOP);
  }

  void TakeEnd(Role role) {
    if (role != Role::kCaller) return;
    wanted_ = false;
    if (held_ != 0) kill(held_, SIGCONT);
    held_ = 0;
  }

 private:
  bool wanted_;
  pid_t held_ = 0;
};

class KillAnywhere : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite() { delete volume_; }

  // Kills along the road for so much of the time, and counts.
  void KillAlong(const Road& road, double part);

  // Everything as after a calculation, of the neighbour as well.
  static void HaveResults();

  // Whoever has made a calculation, in whatever state the files are: it succeeded.
  static void ExpectRight();

  // A road of a program that links the library.
  Road LibraryRoad(Role victim) {
    return {victim, [this] { return CallLibrary(reminder_); }, [this] { reminder_ = !reminder_; }};
  }

 private:
  size_t CountSteps(const Road& road);
  void Try(const Road& road, const Way& way);
  // The whole road with one kill; the text of the step where it was, empty when it never came.
  std::string KillOnce(const Road& road, const Way& way);
  void ExpectWholeRest(bool frontMayBeGone);
  void BringBack(Cleanup cleanup, const std::string& task);
  bool CleanByTool(const std::vector<std::string>& tasks);
  void CalculateAgain(const Way& way);

  static BtrfsVolume* volume_;  // the child of a calculation leaves by exit: no owner that it ends
  static Sizes expected_;
  bool reminder_ = false;
  bool becomesTheFront_ = false;
  size_t kills_ = 0, notReached_ = 0, left_ = 0, removed_ = 0, claims_ = 0, renames_ = 0,
         short_ = 0, orphans_ = 0;
};

BtrfsVolume* KillAnywhere::volume_ = nullptr;
Sizes KillAnywhere::expected_;

void KillAnywhere::SetUpTestSuite() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  fs::remove_all(kEngine);
  fs::copy_file(ZORV_ENGINE_PATH, kEngine);
  volume_ = new BtrfsVolume("/volume1");
  for (const char* share : {kShare, kNeighbour}) volume_->Subvolume(share);
  for (unsigned i = 1; i <= 3; ++i) {
    WriteRandom(volume_->Path("photos/file"), 20000 * i, i);
    volume_->Snapshot(kShare, "photos/.snapshots/GMT-2024.03.0" + std::to_string(i) + "-09.04.09");
  }
  volume_->Snapshot(kNeighbour, "mail/.snapshots/GMT-2024.03.01-09.04.09");
  const Sizes kernels = volume_->KernelExclusive();
  for (const auto& entry : fs::directory_iterator(volume_->Path("photos/.snapshots"))) {
    const unsigned long long id = SubvolumeID(entry.path());
    expected_[id] = kernels.at(id);
  }
  HaveResults();
}

void KillAnywhere::HaveResults() {
  for (const char* share : {kNeighbour, kShare}) MustTool({"run", share, "--quiet"});
}

void KillAnywhere::ExpectRight() {
  EXPECT_EQ("done", StateOf(kShare));
  EXPECT_EQ(expected_, ResultOf(kShare));
  const Shown shown = Show();
  EXPECT_EQ(0, shown.status);
  EXPECT_EQ(expected_, shown.sizes);
}

// Twice, because how often the engine says how far it is depends on the time it takes.
size_t KillAnywhere::CountSteps(const Road& road) {
  size_t steps = 0;
  for (int run = 0; run < 2; ++run) {
    road.prepare();
    WorkerHold hold(road.holdWorker);
    SyscallStepper stepper;
    stepper.OnEnd([&](pid_t, Role role, int) { hold.TakeEnd(role); });
    const int status = stepper.Run(road.body, [&](const Step& step) {
      hold.Take(step);
      if (step.role == road.victim) steps = std::max(steps, step.number);
      return Action::GoOn();
    });
    EXPECT_EQ(0, status);
  }
  return steps;
}

void KillAnywhere::KillAlong(const Road& road, double part) {
  constexpr size_t kAtLeast = 6;
  const Budget budget(part);
  const size_t steps = CountSteps(road);
  ASSERT_GT(steps, 0u);
  EXPECT_EQ(1u, LoopsOn(volume_->Image()));
  std::set<size_t> tried;
  const char* const told = getenv("ZORV_TORTURE_NUMBER");
  for (const size_t number : SpreadOrder(steps * road.Ways())) {
    if (told != nullptr && number != strtoul(told, nullptr, 10)) continue;
    const bool enough = kills_ >= kAtLeast && (road.victim != Role::kFront || orphans_ > 0);
    if (enough && !budget.IsLeft()) break;
    const Way way(road, number);
    SCOPED_TRACE("number " + std::to_string(number) + ": " + ZorvTest::NameOf(road.victim) +
                 " killed " + (way.after ? "after" : "before") + " step " +
                 std::to_string(way.step) + ", brought back by " + NameOf(way.cleanup));
    tried.insert(way.step);
    Try(road, way);
    if (HasFailure()) break;  // what comes after one is not to be trusted
  }
  Figure("kills", kills_);
  Figure("not reached", notReached_);
  Figure("steps", tried.size());
  Figure("of steps", steps);
  Figure("objects put in place", renames_);
  Figure("temporary files left", left_);
  Figure("temporary files removed", removed_);
  Figure("claims that had to expire", claims_);
  Figure("files of forgotten tasks by now", FilesOfTasks());
  const bool isWhole = told == nullptr && !HasFailure();
  EXPECT_TRUE(!isWhole || kills_ >= kAtLeast) << "too few steps were reached";
  if (road.victim == Role::kFront) {
    Figure("short results, said to be short", short_);
    Figure("workers gone with their fronts", orphans_);
    EXPECT_TRUE(!isWhole || orphans_ > 0) << "no front was killed that had a worker";
  }
  Figure("lost", HasFailure() ? 1 : 0);
}

std::string KillAnywhere::KillOnce(const Road& road, const Way& way) {
  RecordLedger ledger;
  std::string at;
  pid_t victim = 0, calculator = 0;
  WorkerHold hold(road.holdWorker);
  Orphan orphan;
  SyscallStepper stepper;
  stepper.OnEnd([&](pid_t pid, Role role, int status) {
    EXPECT_EQ("", LocksThatOutlive(pid)) << "after " << at;
    hold.TakeEnd(role);
    orphan.TakeEnd(role, status);
  });
  (void)stepper.Run(road.body, [&](const Step& step) {
    hold.Take(step);
    orphan.See(step);
    if (calculator == 0 && step.role == Role::kCalculator) calculator = step.pid;
    const bool here = victim == 0 && step.role == road.victim && step.number == way.step;
    if (!here || way.after) ledger.Take(step);
    if (!here) return Action::GoOn();
    victim = step.pid;
    at = step.text;
    if (road.killAll) KillAllBut(step.pid);
    if (road.victim == Role::kFront) orphan.FrontIsKilled();
    return way.after ? Action::KillAfter() : Action::KillBefore();
  });
  EXPECT_EQ("", ledger.Differences()) << "after " << at;
  renames_ += ledger.Renames();
  orphans_ += orphan.Gone();
  // The calculator's child, killed before it is the engine's front: a front that has said nothing.
  becomesTheFront_ = road.victim == Role::kCalculator && victim != 0 && victim != calculator;
  return at;
}

void KillAnywhere::Try(const Road& road, const Way& way) {
  road.prepare();
  const std::string neighbour = TaskOf(kNeighbour);
  const std::string task = TaskOf(kShare);
  const Machine machine(volume_->Image());
  const std::string at = KillOnce(road, way);
  SCOPED_TRACE("at " + at);
  ++(at.empty() ? notReached_ : kills_);
  machine.ExpectSame(Machine(volume_->Image()));
  ExpectWholeRest(road.victim == Role::kFront || becomesTheFront_);
  const std::vector<std::string> left = Leftovers();
  left_ += left.size();
  if (way.cleanup == Cleanup::kNextRun) {
    road.nextRun();
  } else {
    BringBack(way.cleanup, task);
    CalculateAgain(way);
  }
  for (const std::string& path : left) removed_ += fs::exists(path) ? 0 : 1;
  // A table goes with the next one, which not every way of bringing a share back writes.
  EXPECT_EQ(std::vector<std::string>{},
            way.cleanup == Cleanup::kNextRun ? Leftovers() : TemporaryFiles());
  const std::string now = TaskOf(kNeighbour);
  EXPECT_TRUE(now == neighbour || (road.takesNeighbour && now.empty())) << now;
  machine.ExpectSame(Machine(volume_->Image()));
}

// What readers find before anybody has cleaned up: the right numbers, or none. A front that is
// killed says no word of failure, and the calculation ends with what it has heard: then there may
// be fewer, and the tool says so (13).
void KillAnywhere::ExpectWholeRest(bool frontMayBeGone) {
  EXPECT_EQ("", LocksThatAreHeld());
  const Sizes result = ResultOf(kShare);
  const Shown shown = Show();
  EXPECT_TRUE(IsPartOf(shown.sizes, expected_));
  if (shown.status == 13) {
    EXPECT_TRUE(frontMayBeGone);
    EXPECT_LT(shown.sizes.size(), expected_.size());
    ++short_;
  } else if (shown.status == 0) {
    EXPECT_EQ(expected_, shown.sizes);
  } else {
    EXPECT_EQ(10, shown.status);
  }
  if (StateOf(kShare) == "done" && !result.empty()) {
    EXPECT_EQ(shown.status == 13 ? shown.sizes : expected_, result);
  }
}

// `task` was the share's before the kill; the one that is recorded now may be another. Where nobody
// can know that the calculation is dead, the share comes back by expiry alone.
void KillAnywhere::BringBack(Cleanup cleanup, const std::string& task) {
  const std::string state = StateOf(kShare);
  bool mayStayClaimed = false;
  if (cleanup == Cleanup::kTool) mayStayClaimed = !CleanByTool({task, TaskOf(kShare)});
  if (cleanup == Cleanup::kNotDone) {
    EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
    mayStayClaimed = state != "process";
  }
  std::string taskID;
  if (mayStayClaimed && !ShareSnapUsageCal::CheckAvail(kShare, taskID)) ++claims_;
  if (mayStayClaimed || cleanup == Cleanup::kExpiry) Expire();
  EXPECT_TRUE(ShareSnapUsageCal::CheckAvail(kShare, taskID)) << StateOf(kShare);
}

// Of a share and its tasks that were ever recorded nothing is left. False: it is claimed, by a
// process that is not known yet.
bool KillAnywhere::CleanByTool(const std::vector<std::string>& tasks) {
  const CommandResult clean = Tool({"clean", kShare});
  EXPECT_TRUE(clean.status == 0 || clean.status == 10 || clean.status == 4) << clean.err;
  if (clean.status == 4) return false;
  for (const std::string& task : tasks) {
    EXPECT_EQ(std::vector<std::string>{}, FilesOfTask(task));
  }
  if (!tasks.front().empty()) {
    EXPECT_FALSE(fs::exists(ShareStatusPath(kShare)));
    EXPECT_FALSE(fs::exists(ShareResultDir(kShare)));
  }
  return true;
}

// By the tool, or by the library; then the tool comes by afterwards.
void KillAnywhere::CalculateAgain(const Way& way) {
  if (way.step % 2 == 0) {
    const CommandResult run = Tool({"run", kShare, "--quiet"});
    EXPECT_EQ(0, run.status) << run.err;
  } else {
    EXPECT_EQ(0, InChild([this] { return CallLibrary(reminder_); }));
    WaitForEverybody();
    EXPECT_EQ(0, Tool({"stop", kShare}).status);
  }
  ExpectRight();
}

// ---- The roads ----------------------------------------------------------------------------------

TEST_F(KillAnywhere, Caller) { KillAlong(LibraryRoad(Role::kCaller), 0.08); }

TEST_F(KillAnywhere, CallerOnAFreshMachine) {
  Road road = LibraryRoad(Role::kCaller);
  road.prepare = [] {
    for (const char* root : {kRunDir, kLockDir, kPersistentDir}) fs::remove_all(root);
  };
  KillAlong(road, 0.07);
  HaveResults();
}

TEST_F(KillAnywhere, Calculator) { KillAlong(LibraryRoad(Role::kCalculator), 0.13); }

// As a service manager ends a group, or the kernel one that has no memory left.
TEST_F(KillAnywhere, AllAtOnce) {
  Road road = {Role::kCalculator, Launch};
  road.killAll = true;
  KillAlong(road, 0.06);
}

TEST_F(KillAnywhere, EngineFront) { KillAlong(LibraryRoad(Role::kFront), 0.05); }

TEST_F(KillAnywhere, EngineWorker) { KillAlong(LibraryRoad(Role::kWorker), 0.05); }

TEST_F(KillAnywhere, ToolRun) {
  KillAlong({Role::kCaller, ToolBody({"run", kShare, "--quiet"})}, 0.08);
}

TEST_F(KillAnywhere, ToolStart) { KillAlong({Role::kCaller, ToolBody({"start", kShare})}, 0.07); }

TEST_F(KillAnywhere, ToolStop) {
  Road road = {Role::kCaller, [] {
                 const int started = InChild(ToolBody({"start", kShare}));
                 return started == 0 ? ToolBody({"stop", kShare})() : started;
               }};
  road.holdWorker = true;
  KillAlong(road, 0.08);
}

TEST_F(KillAnywhere, ToolClean) {
  Road road = {Role::kCaller, ToolBody({"clean", kShare})};
  // A share with everything: results of one calculation, and the records of one that failed.
  road.prepare = [] {
    MustTool({"run", kShare, "--quiet"});
    fs::rename(kEngine, "/sbin/engine");
    WriteScript(kEngine,
                "[ \"$3\" = --version ] && echo zorv btrfs engine && exit\n"
                "echo exclusive sizes unavailable\n");
    (void)Tool({"run", kShare, "--quiet"});
    fs::rename("/sbin/engine", kEngine);
  };
  road.cleanups = {Cleanup::kTool};
  KillAlong(road, 0.09);
}

TEST_F(KillAnywhere, ToolCleanAll) {
  Road road = {Role::kCaller, ToolBody({"clean", "--all"}), HaveResults};
  road.takesNeighbour = true;
  road.cleanups = {Cleanup::kTool};
  KillAlong(road, 0.04);
  HaveResults();
}

TEST_F(KillAnywhere, ToolCleanInterrupted) {
  Road road = {Role::kCaller, ToolBody({"clean", "--interrupted"})};
  // Results of one calculation, and the records of one that was killed.
  road.prepare = [] {
    MustTool({"run", kShare, "--quiet"});
    fs::rename(kEngine, "/sbin/engine");
    WriteScript(kEngine,
                "[ \"$3\" = --version ] && echo zorv btrfs engine && exit\n"
                "exec sleep 600\n");
    EXPECT_EQ(0, ZorvTest::Run(Argv({"start", kShare})).status);
    EXPECT_TRUE(WaitUntil([] { return StateOf(kShare) == "process"; }));
    KillAllBut(getpid());
    WaitForEverybody();
    fs::rename("/sbin/engine", kEngine);
  };
  road.cleanups = {Cleanup::kTool};
  KillAlong(road, 0.04);
}

// ---- Roads of the tool beside calculations ------------------------------------------------------

// A plan of everything, which asks the engine and keeps its table.
const std::vector<std::string> kPlan = {"plan", kShare, "--delete", "%", "-H"};

// The share's tables, what they must hold, and what a plan says.
class PlannedShare {
 public:
  PlannedShare() {
    fs::remove_all(kCache);
    answer_ = Answer();
    const auto tables = Tables(/*unfinished=*/false);
    if (tables.size() != 1) throw std::runtime_error("not one table");
    std::tie(name_, table_) = *tables.begin();
  }

  // The cache is not there, or as full as it gets, in turns.
  void Prepare() {
    fs::remove_all(kCache);
    older_.clear();
    full_ = !full_;
    if (!full_) return;
    for (const char* directory : {kCache, kTables}) {
      fs::create_directory(directory);
      fs::permissions(directory, fs::perms(0700));
    }
    for (unsigned earlier = 1; earlier <= 4; ++earlier) {
      const std::string name = Earlier(name_, "-", earlier);
      older_[name] = Earlier(table_, "\"generation\":", earlier);
      WriteFile(std::string(kTables) + "/" + name, older_[name]);
    }
  }

  // Every table is whole: one of those that were there, or the new one; the plan has said what is
  // right, why not, or nothing; and the next one is right.
  void ExpectRightPlan() {
    const std::string said = ReadFile(kOutput);
    EXPECT_TRUE(said.empty() || said == answer_ || said.rfind("zorv-snapusage: ", 0) == 0) << said;
    for (const auto& [name, text] : Tables(/*unfinished=*/false)) ExpectWhole(name, text);
    EXPECT_EQ(answer_, Answer());
    const auto tables = Tables(/*unfinished=*/false);
    EXPECT_EQ(1u, tables.count(name_));
    for (const auto& [name, text] : tables) ExpectWhole(name, text);
  }

 private:
  static std::string Answer() {
    const CommandResult plan = Tool(kPlan);
    EXPECT_EQ(0, plan.status) << plan.err;
    return plan.out;
  }

  std::string Generation() const {
    Json::Value table;
    std::istringstream(table_) >> table;
    return table["generation"].asString();
  }

  // The text with another generation behind `before`.
  std::string Earlier(std::string text, const std::string& before, unsigned earlier) const {
    const std::string now = Generation();
    const size_t at = text.find(before + now) + before.size();
    return text.replace(at, now.size(), std::to_string(stoull(now) - earlier));
  }

  // From the generation on: when it was taken differs.
  static std::string NumbersOf(const std::string& table) {
    const size_t at = table.find("\"generation\"");
    return at == std::string::npos ? "none in: " + table : table.substr(at);
  }

  void ExpectWhole(const std::string& name, const std::string& text) const {
    if (const auto older = older_.find(name); older != older_.end()) {
      EXPECT_EQ(older->second, text) << name;
    } else {
      EXPECT_EQ(name_, name);
      EXPECT_EQ(NumbersOf(table_), NumbersOf(text));
    }
  }

  std::string answer_, name_, table_;
  std::map<std::string, std::string> older_;
  bool full_ = false;
};

Road PlanRoad(PlannedShare& share, Role victim) {
  Road road = {victim, ToolBody(kPlan), [&share] { share.Prepare(); }};
  road.cleanups = {Cleanup::kNextRun};
  road.nextRun = [&share] { share.ExpectRightPlan(); };
  return road;
}

TEST_F(KillAnywhere, ToolPlan) {
  PlannedShare share;
  KillAlong(PlanRoad(share, Role::kCaller), 0.05);
}

TEST_F(KillAnywhere, EngineFrontOfAPlan) {
  PlannedShare share;
  KillAlong(PlanRoad(share, Role::kFront), 0.02);
}

TEST_F(KillAnywhere, EngineWorkerOfAPlan) {
  PlannedShare share;
  KillAlong(PlanRoad(share, Role::kWorker), 0.02);
}

TEST_F(KillAnywhere, ToolReminder) {
  bool on = false;
  Road road = {Role::kCaller,
               [&on] {
                 return ToolBody({"reminder", on ? "on" : "off"})();
               },
               [&on] { on = !on; }};
  road.cleanups = {Cleanup::kNextRun};
  road.nextRun = [&on] {
    const std::string setting = on ? "on" : "off";
    EXPECT_EQ(setting + "\n", Tool({"reminder", setting}).out);
    bool now = !on;
    EXPECT_TRUE(Utils::ReminderStatusGet(now));
    EXPECT_EQ(on, now);
  };
  KillAlong(road, 0.02);
}

// Temporary files that a process is about to change or rename.
std::vector<std::string> TemporaryFilesOf(const Step& step) {
  std::vector<std::string> files;
  for (const std::string& path : step.paths)
    if (IsTemporary(path) && fs::exists(path)) files.push_back(path);
  return files;
}

// The tool takes away what the dead have left; what a living writer is about to rename, it does
// not.
TEST_F(KillAnywhere, SweepAtEachStep) {
  const Budget budget(0.05);
  size_t sweeps = 0, met = 0;
  const auto sweep = [&](const Step& step) {
    const std::vector<std::string> files = TemporaryFilesOf(step);
    // A share that does not exist: nothing is done but to sweep.
    EXPECT_EQ(5, ZorvTest::Run(Argv({"run", "unknown"})).status);
    for (const std::string& file : files) {
      EXPECT_TRUE(fs::exists(file)) << "before " << step.text;
    }
    ++sweeps;
    met += files.size();
    return Action::GoOn();
  };
  do {
    EXPECT_EQ(0, SyscallStepper().Run([] { return CallLibrary(true); }, sweep));
    ExpectRight();
  } while (budget.IsLeft() && !HasFailure());
  EXPECT_GT(met, 0u);
  Figure("sweeps", sweeps);
  Figure("files of living writers met", met);
  Figure("lost", HasFailure() ? 1 : 0);
}

}  // namespace
}  // namespace ZorvTest
