// The row in which runs wait: who is first, who does not count, and where there is no row.
#include "engine/turn.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <vector>

#include "tests/engine/held_row.h"
#include "tests/support/platform_hook.h"
#include "tests/support/shared_memory.h"

using namespace ZorvTest;
using namespace ZorvEngine;

namespace {

constexpr char kName[] = "11111111-2222-3333-4444-555555555555";
const std::string kRow = std::string(kRows) + "/" + kName;

class TurnRow : public testing::Test {
 protected:
  TurnRow() { std::filesystem::remove_all(kRows); }
  ~TurnRow() override { std::filesystem::remove_all(kRows); }
};

bool IsStopped(pid_t process) {
  const std::string stat = ReadFile("/proc/" + std::to_string(process) + "/stat");
  return stat[stat.rfind(')') + 2] == 'T';
}

// So many that came before, in the order of their places.
class LongRow {
 public:
  explicit LongRow(int holders) {
    for (int n = 1; n <= holders; ++n) holders_.push_back(std::make_unique<HeldRow>(kRow, n));
  }

  HeldRow& operator[](int n) { return *holders_[static_cast<size_t>(n)]; }

 private:
  std::vector<std::unique_ptr<HeldRow>> holders_;
};

void Stop(pid_t process) {
  (void)kill(process, SIGSTOP);
  ASSERT_TRUE(WaitUntil([&] { return IsStopped(process); }));
}

}  // namespace

TEST_F(TurnRow, WhoIsAloneBeginsAtOnce) {
  Turn turn;
  const Status joined = turn.Join(kName);
  ASSERT_TRUE(joined.Ok()) << joined.Text();
  EXPECT_TRUE(turn.HasCome());
  EXPECT_EQ(0u, turn.Ahead());
}

// Two hundred that wait took a fifth of a processor with their looks.
TEST_F(TurnRow, WhoIsFarBehindLooksLessOften) {
  LongRow before(6);
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  EXPECT_EQ(std::chrono::milliseconds(200), turn.Nap());
  before[0].Release();
  before[1].Release();
  ASSERT_TRUE(WaitUntil([&] { return turn.Ahead() == 4; })) << "counted within a second";
  EXPECT_EQ(std::chrono::milliseconds(20), turn.Nap());
}

TEST_F(TurnRow, WhoComesLaterWaitsUntilThoseBeforeHaveGone) {
  HeldRow first(kRow, 1), second(kRow, 2), third(kRow, 7);
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  EXPECT_FALSE(turn.HasCome());
  EXPECT_EQ(3u, turn.Ahead());
  second.Release();
  EXPECT_FALSE(turn.HasCome());
  EXPECT_EQ(2u, turn.Ahead());
  first.Release();
  EXPECT_FALSE(turn.HasCome());
  third.Release();
  EXPECT_TRUE(turn.HasCome());
  EXPECT_EQ(0u, turn.Ahead());
}

TEST_F(TurnRow, WhoComesLaterIsNotWaitedFor) {
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  const HeldRow later(kRow, INT64_MAX - 1);
  EXPECT_TRUE(turn.HasCome());
  EXPECT_EQ(0u, turn.Ahead());
}

// It may have looked at the clock before, and take its place only now.
TEST_F(TurnRow, WhoIsStillComingIsWaitedFor) {
  HeldRow coming(kRow, 0, F_RDLCK);
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  EXPECT_FALSE(turn.HasCome());
  EXPECT_EQ(0u, turn.Ahead());
  coming.Release();
  EXPECT_TRUE(turn.HasCome());
}

TEST_F(TurnRow, OtherRowsAreNotWaitedFor) {
  const HeldRow other(std::string(kRows) + "/another");
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  EXPECT_TRUE(turn.HasCome());
}

TEST_F(TurnRow, WhoIsStoppedIsNotWaitedFor) {
  const HeldRow first(kRow, 1), second(kRow, 2), coming(kRow, 0, F_RDLCK);
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  Stop(first.Holder());
  Stop(coming.Holder());
  EXPECT_FALSE(turn.HasCome());
  EXPECT_EQ(1u, turn.Ahead());
  Stop(second.Holder());
  EXPECT_TRUE(turn.HasCome());
  EXPECT_EQ(0u, turn.Ahead());
}

TEST_F(TurnRow, NobodyWaitsForEver) {
  constexpr std::chrono::milliseconds kMost{100};
  HeldRow first(kRow, 1), second(kRow, 2);
  Turn turn(kMost);
  const double begin = Seconds();
  ASSERT_TRUE(turn.Join(kName).Ok());
  EXPECT_TRUE(WaitUntil([&] { return turn.HasCome(); }));
  EXPECT_GE(Seconds() - begin, 0.2);  // for each of the two
}

TEST_F(TurnRow, EachStepForwardIsAReasonToWaitOn) {
  constexpr std::chrono::milliseconds kMost{400};
  HeldRow first(kRow, 1), second(kRow, 2);
  Turn turn(kMost);
  ASSERT_TRUE(turn.Join(kName).Ok());
  usleep(300000);
  first.Release();
  const double begin = Seconds();
  EXPECT_EQ(1u, turn.Ahead());
  EXPECT_TRUE(WaitUntil([&] { return turn.HasCome(); }));
  EXPECT_GE(Seconds() - begin, 0.4);
}

// Everybody in a row asks many times a second: a hundred that each looked at all others whenever
// they asked took a third of a processor, and two hundred all of one.
TEST_F(TurnRow, ALongRowIsCountedOnceASecond) {
  constexpr int kHolders = 20, kAsked = 100;
  constexpr int kOfACount = 2 * kHolders + 2;  // questions: one each, and one before and behind it
  LongRow row(kHolders);
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  Stop(row[0].Holder());
  PlatformHook<int(int, int, void*)> asked("fcntl");
  const double begin = Seconds();
  for (int n = 0; n < kAsked; ++n) {
    EXPECT_FALSE(turn.HasCome());
    EXPECT_LE(kHolders - 1u, turn.Ahead());
  }
  const int seconds = static_cast<int>(Seconds() - begin);
  EXPECT_LE(asked.Calls(), kAsked + (seconds + 1) * kOfACount);
}

TEST_F(TurnRow, ALongRowIsCountedAgainAfterASecond) {
  constexpr int kHolders = 8;
  LongRow row(kHolders);
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  EXPECT_EQ(8u, turn.Ahead());
  row[3].Release();
  EXPECT_TRUE(WaitUntil([&] { return turn.Ahead() == 7; }));
  for (int n = 0; n < kHolders; ++n)
    if (row[n].Holder() > 0) Stop(row[n].Holder());
  EXPECT_TRUE(WaitUntil([&] { return turn.HasCome(); }));
  EXPECT_EQ(0u, turn.Ahead());
}

TEST_F(TurnRow, LeavingGivesThePlaceBack) {
  Turn turn;
  ASSERT_TRUE(turn.Join(kName).Ok());
  EXPECT_EQ(0, InChild([] { return SomebodyInRow(kRow) == getppid() ? 0 : 1; }));
  turn.Leave();
  EXPECT_EQ(0, SomebodyInRow(kRow));
  EXPECT_TRUE(turn.HasCome());
  turn.Leave();
}

TEST_F(TurnRow, NobodyElseCanOpenIt) {
  const mode_t saved = umask(0);
  Turn turn;
  const bool joined = turn.Join(kName).Ok();
  (void)umask(saved);
  ASSERT_TRUE(joined);
  EXPECT_EQ(0700, ModeOf(kRows));
  EXPECT_EQ(0600, ModeOf(kRow));
}

// What somebody may have put where the row goes.
TEST_F(TurnRow, ThereIsNoneThatIsNotRootsAlone) {
  const auto makeRow = [] {
    (void)mkdir(kRows, 0700);
    WriteFile(kRow, "");
    (void)chmod(kRow.c_str(), 0600);
  };
  const struct {
    const char* name;
    std::function<void()> make;
  } kCases[] = {
      {"directory that others may read", [] { (void)mkdir(kRows, 0755); }},
      {"directory of somebody else's",
       [] { (void)!(mkdir(kRows, 0700) == 0 && chown(kRows, 1000, 0) == 0); }},
      {"link to a directory",
       [] { (void)!(mkdir("/tmp/rows", 0700) == 0 && symlink("/tmp/rows", kRows) == 0); }},
      {"file in place of the directory", [] { WriteFile(kRows, ""); }},
      {"row that others may read",
       [&] {
         makeRow();
         (void)chmod(kRow.c_str(), 0644);
       }},
      {"row of somebody else's",
       [&] {
         makeRow();
         (void)!chown(kRow.c_str(), 1000, 0);
       }},
      {"link in place of the row",
       [&] {
         (void)mkdir(kRows, 0700);
         (void)!symlink("/tmp/elsewhere", kRow.c_str());
       }},
      {"FIFO in place of the row",
       [&] { (void)!(mkdir(kRows, 0700) == 0 && mkfifo(kRow.c_str(), 0600) == 0); }},
      {"directory in place of the row",
       [&] { (void)!(mkdir(kRows, 0700) == 0 && mkdir(kRow.c_str(), 0700) == 0); }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(kRows);
    std::filesystem::remove_all("/tmp/rows");
    c.make();
    Turn turn;
    const Status joined = turn.Join(kName);
    EXPECT_FALSE(joined.Ok());
    EXPECT_EQ(0u, joined.Text().find(kRows)) << joined.Text();
    EXPECT_TRUE(turn.HasCome());
    EXPECT_EQ(0u, turn.Ahead());
  }
  EXPECT_FALSE(std::filesystem::exists("/tmp/elsewhere"));
}

TEST_F(TurnRow, ThereIsNoneWhereNothingCanBeWritten) {
  ASSERT_EQ(0, mount("/run", "/run", nullptr, MS_BIND, nullptr));
  ASSERT_EQ(0, mount(nullptr, "/run", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
  Turn turn;
  const Status joined = turn.Join(kName);
  EXPECT_EQ(0, umount2("/run", MNT_DETACH));
  EXPECT_EQ(std::string(kRows) + ": Read-only file system", joined.Text());
  EXPECT_TRUE(turn.HasCome());
}

TEST_F(TurnRow, NeverTwoAtOnceAndNobodyIsLeftOut) {
  constexpr int kProcesses = 12, kRounds = 20;
  struct Seen {
    std::atomic<int> inside{0}, together{0}, turns{0};
  };
  const SharedMemory<Seen> seen;
  std::vector<pid_t> processes;
  for (int process = 0; process < kProcesses; ++process) {
    processes.push_back(fork());
    if (processes.back() != 0) continue;
    for (int round = 0; round < kRounds; ++round) {
      Turn turn;
      if (!turn.Join(kName).Ok()) _exit(1);
      while (!turn.HasCome()) usleep(100);
      if (++seen->inside > 1) ++seen->together;
      usleep(50);
      --seen->inside;
      ++seen->turns;
    }
    _exit(0);
  }
  for (const pid_t process : processes) EXPECT_EQ(0, WaitForExit(process));
  EXPECT_EQ(0, seen->together);
  EXPECT_EQ(kProcesses * kRounds, seen->turns);
}

TEST(TurnStandStill, IsTheTimeSinceTheLastChange) {
  using std::chrono::seconds;
  const StandStill::Clock::time_point begin;
  StandStill still(begin);
  EXPECT_EQ(seconds(5), still.Take(0, begin + seconds(5)));
  EXPECT_EQ(seconds(0), still.Take(1, begin + seconds(6)));
  EXPECT_EQ(seconds(60), still.Take(1, begin + seconds(66)));
  EXPECT_EQ(seconds(0), still.Take(2, begin + seconds(67)));
}
