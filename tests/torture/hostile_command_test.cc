// A hostile /sbin/btrfs: what it prints, and how it ends. After each run: state, code, files,
// children and memory as documented; descriptors are looked at after every test.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <functional>
#include <set>

#include "tests/support/calc_world.h"
#include "tests/support/torture.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;

namespace {

using Words = std::vector<unsigned long long>;

constexpr unsigned long long kMiB = 1 << 20;

// What a child needs at most, of this test's own memory included, whatever is printed.
constexpr unsigned long long kMostOfAnyRun = 160 * kMiB;

// What it needs beyond that of a run whose output is small, when no subvolumes are recorded.
constexpr unsigned long long kSmall = 4 * kMiB;

int KeepTheFiles(TaskStatus&, void*) { return 1; }

// How a run ended.
struct Ended {
  int exit = -1;
  unsigned long long peakBytes = 0;
};

// Bytes of memory that this process holds.
unsigned long long OwnMemory() {
  std::ifstream in("/proc/self/statm");
  unsigned long long pages = 0;
  unsigned long long resident = 0;
  in >> pages >> resident;
  return resident * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
}

// Processes that run the hostile command.
int CommandsLeft() {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path() / "exe", gone) == fs::canonical(kBtrfs)) ++count;
  }
  return count;
}

std::set<std::string> FilesIn(const std::string& directory) {
  std::set<std::string> names;
  if (fs::exists(directory))
    for (const auto& entry : fs::directory_iterator(directory))
      names.insert(entry.path().filename());
  return names;
}

class HostileCommand : public CalcWorld {
 protected:
  HostileCommand() {
    fs::copy_file(ZORV_HOSTILE_BTRFS, kBtrfs);
    for (const char* path : {"/tmp/hold", "/tmp/printed"}) fs::remove(path);
    EXPECT_EQ(0, calc_.Init("t1"));
  }

  // Starts a run; the process that calculates.
  pid_t Start(const std::vector<std::string>& arguments) {
    pid_t pid = -1;
    PlatformHook<decltype(PLATCProcForkChildNoWait)> fork("PLATCProcForkChildNoWait");
    fork.Replace([&] { return pid = fork.Real(); });
    SzList list = MakeSzList();
    for (const std::string& word : arguments) PLATCSzListPush(SzListRef(list), word.c_str());
    EXPECT_EQ(0, calc_.Start(&task_, SzListRef(list)));
    return pid;
  }

  Ended End(pid_t pid) {
    Ended ended;
    int status = 0;
    rusage used = {};
    while (wait4(pid, &status, 0, &used) < 0 && errno == EINTR) continue;
    ended.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ended.peakBytes = static_cast<unsigned long long>(used.ru_maxrss) * 1024;
    return ended;
  }

  // A whole run, and what must be true after any.
  Ended Run(const std::vector<std::string>& arguments) {
    const unsigned long long before = OwnMemory();
    const Ended ended = End(Start(arguments));
    ExpectNothingLeft();
    EXPECT_LT(OwnMemory(), before + kSmall);
    EXPECT_LT(ended.peakBytes, kMostOfAnyRun);
    return ended;
  }

  static void ExpectNothingLeft() {
    EXPECT_TRUE(WaitUntil([] { return CommandsLeft() == 0; }));
    // What the command left has no program any more a moment before it can be waited for.
    EXPECT_TRUE(WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
    EXPECT_EQ(std::set<std::string>{"t1"}, FilesIn(kStatusDir));
  }

  // The calculation is done, and these are its results.
  static void ExpectDone(const Ended& ended, const Words& ids, const Words& bytes) {
    EXPECT_EQ(9, ended.exit);  // the post-action keeps the files by failing
    ExpectState("done", "0");
    ExpectVector("t1.subvol_id", ids);
    ExpectVector("t1.result", bytes);
  }

  static void ExpectFailed(const Ended& ended) {
    EXPECT_EQ(1, ended.exit);
    ExpectState("fail", "1");
    EXPECT_EQ(std::set<std::string>(), FilesIn(kResultDir));
  }

  static void ExpectState(const std::string& state, const std::string& code) {
    auto status = StatusOf("t1");
    EXPECT_EQ(state, status["status"]);
    EXPECT_EQ(code, status["error_code"]);
    EXPECT_EQ(1u, status.count("end_time"));
  }

  static unsigned long long Printed() { return std::stoull(ReadFile("/tmp/printed")); }

  _tag_ZORV_BTRFS_USAGE_CAL_TASK task_ = {CAL_OPT_BY_PATH, nullptr, &KeepTheFiles, 1};
  SnapUsageCalculator calc_;

 private:
  static void ExpectVector(const std::string& name, Words expected) {
    expected.insert(expected.begin(), expected.size());
    ASSERT_TRUE(fs::exists(kResultDir + name));
    EXPECT_EQ(expected, WordsOf(kResultDir + name));
  }
};

// What a run takes whose command prints one line.
unsigned long long QuietPeak(const std::function<Ended(const std::vector<std::string>&)>& run) {
  return run({"text", "subvol(257) 5 bytes"}).peakBytes;
}

}  // namespace

TEST_F(HostileCommand, GarbageIsSkipped) {
  constexpr unsigned long long kAll = 10'000'000'000;
  const auto run = [this](const std::vector<std::string>& words) { return Run(words); };
  const unsigned long long quiet = QuietPeak(run);
  const Budget budget(0.4);
  const Ended ended = Run({"garbage", std::to_string(kAll), std::to_string(budget.Left())});
  ExpectDone(ended, {}, {});
  EXPECT_LT(ended.peakBytes, quiet + kSmall);
  EXPECT_GT(Printed(), 0u);
  Figure("bytes of garbage", Printed());
  Figure("of bytes", kAll);
  Figure("bytes of memory beyond a quiet run", ended.peakBytes - std::min(ended.peakBytes, quiet));
}

TEST_F(HostileCommand, LinesWithoutAnEndTakeNoMemory) {
  const auto run = [this](const std::vector<std::string>& words) { return Run(words); };
  const unsigned long long quiet = QuietPeak(run);
  unsigned long long lines = 0;
  for (const Budget budget(0.2); lines < 2 || budget.IsLeft(); ++lines) {
    const Ended ended = Run({lines % 2 == 0 ? "line" : "nuls", std::to_string(100 * kMiB)});
    ExpectDone(ended, {257}, {5});
    EXPECT_LT(ended.peakBytes, quiet + kSmall);
    EXPECT_EQ(100 * kMiB, Printed());
  }
  Figure("lines of 100 MiB", lines);
}

TEST_F(HostileCommand, EveryProgressLineIsWritten) {
  constexpr unsigned long long kAll = 100'000;
  const auto run = [this](const std::vector<std::string>& words) { return Run(words); };
  const unsigned long long quiet = QuietPeak(run);
  const Budget budget(0.3);
  const Ended ended = Run({"progress", std::to_string(kAll), std::to_string(budget.Left())});
  ExpectDone(ended, {}, {});
  EXPECT_EQ(std::to_string(Printed()), StatusOf("t1")["processed_in_bytes"]);
  EXPECT_LT(ended.peakBytes, quiet + kSmall);
  Figure("progress lines", Printed());
  Figure("of lines", kAll);
}

TEST_F(HostileCommand, IDsWithoutEndFailWithinTheStatedMemory) {
  const Ended ended = Run({"ids", "10000000"});
  ExpectFailed(ended);
  EXPECT_LT(Printed(), 10'000'000u);
  Figure("bytes of memory at most", ended.peakBytes);
  Figure("lines before it failed", Printed());
}

TEST_F(HostileCommand, NumbersThatAreNone) {
  constexpr unsigned long long kMost = ~0ULL;
  const struct {
    const char* line;
    bool taken;
    unsigned long long id;
    unsigned long long bytes;
  } kCases[] = {
      // Kept: as sscanf converts.
      {"subvol(257) 99999999999999999999 bytes", true, 257, kMost},
      {"subvol(99999999999999999999) 5 bytes", true, kMost, 5},
      {"subvol(257) -5 bytes", true, 257, kMost - 4},
      {"subvol(-1) 5 bytes", true, kMost, 5},
      {"subvol(257) nan bytes", true, 257, 0},
      {"subvol(nan) 5 bytes", false, 0, 0},
      {"subvol 257 5 bytes", false, 0, 0},
      {"exclusive nan bytes", false, 0, 0},
      {"processed inf bytes", false, 0, 0},
      {"exclusive sizes unavailable: no", false, 0, 0},
  };
  unsigned long long runs = 0;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.line);
    fs::remove_all(kResultDir);
    const Ended ended = Run({"text", c.line});
    if (c.taken) {
      ExpectDone(ended, {c.id}, {c.bytes});
    } else {
      ExpectFailed(ended);
    }
    ++runs;
  }
  Figure("runs", runs);
}

// Kept: what was read is there, and the end of the command is only logged. The engine writes its
// lines whole and says a failure in a line of its own, which these do not.
TEST_F(HostileCommand, EndsThatAreNone) {
  ExpectDone(Run({"dies"}), {}, {});
  ExpectDone(Run({"killed"}), {}, {});
  ExpectDone(Run({"cut"}), {257}, {12});
  EXPECT_EQ("5", StatusOf("t1")["processed_in_bytes"]);
  EXPECT_EQ(3, log_.Count("Failed to run\"/sbin/btrfs subvolume size -vpm ")) << log_.Dump();
  Figure("runs", 3);
}

// A stop is looked for before each line: a command that prints nothing is stopped when it prints
// again. What it prints then is not recorded.
TEST_F(HostileCommand, HangsAreStoppedAtTheNextLine) {
  unsigned long long stops = 0;
  for (const char* mode : {"hang", "child"}) {
    SCOPED_TRACE(mode);
    ASSERT_EQ(0, mkfifo("/tmp/hold", 0600));
    fs::remove("/tmp/printed");
    const pid_t pid = Start({mode});
    ASSERT_TRUE(WaitUntil([] { return fs::exists("/tmp/printed"); }));
    ASSERT_TRUE(WaitUntil([] { return StatusOf("t1")["processed_in_bytes"] == "1"; }));
    EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
    EXPECT_EQ("process", StatusOf("t1")["status"]);
    WriteFile("/tmp/hold", "go\n");
    EXPECT_EQ(12, End(pid).exit);
    ExpectNothingLeft();
    ExpectState("stop", "12");
    EXPECT_EQ(std::set<std::string>(), FilesIn(kResultDir));
    fs::remove("/tmp/hold");
    ++stops;
  }
  Figure("stops", stops);
}

// The pipe tells the end of the output, not the end of the command: what a grandchild prints into
// it counts, and a command that hangs after its output is waited for.
TEST_F(HostileCommand, ThePipeIsReadToItsEndAndTheCommandWaitedFor) {
  unsigned long long runs = 0;
  for (const char* mode : {"child", "deaf"}) {
    SCOPED_TRACE(mode);
    ASSERT_EQ(0, mkfifo("/tmp/hold", 0600));
    fs::remove("/tmp/printed");
    const pid_t pid = Start({mode});
    ASSERT_TRUE(WaitUntil([] { return fs::exists("/tmp/printed"); }));
    EXPECT_EQ("process", StatusOf("t1")["status"]);
    WriteFile("/tmp/hold", "go\n");
    ExpectDone(End(pid), {257}, {5});
    EXPECT_EQ(mode == std::string("deaf") ? 1u : 0u, Printed());  // it had ended by then
    ExpectNothingLeft();
    fs::remove("/tmp/hold");
    ++runs;
  }
  Figure("runs", runs);
}
