// The engine's program in the row of its file system: it waits, says so, and never longer than
// it must.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>

#include "tests/engine/engine_run.h"
#include "tests/engine/held_row.h"
#include "tests/support/syscall_stepper.h"

using namespace ZorvTest;

namespace {

constexpr char kMount[] = "/volume1";
constexpr char kOneAhead[] = "waiting for other runs on this file system: 1 ahead";

class EngineTurn : public testing::Test {
 protected:
  EngineTurn() : row_(RowOf(kMount)) {
    std::filesystem::remove_all(kRows);
    volume_.Subvolume("live");
    for (unsigned n = 0; n < 10; ++n) {
      WriteRandom(volume_.Path("live/file"), 300000, n);
      paths_.push_back(volume_.Snapshot("live", "snap" + std::to_string(n)));
    }
  }

  std::vector<std::string> Args(const std::string& options) const {
    std::vector<std::string> args = {options};
    args.insert(args.end(), paths_.begin(), paths_.end());
    return args;
  }

  // Reads lines until one is `wanted`; false: the output has ended.
  static bool ReadTo(EngineProcess& engine, const std::string& wanted) {
    std::string line;
    for (char c; read(engine.Out().Get(), &c, 1) == 1;) {
      if (c != '\n') {
        line += c;
        continue;
      }
      if (line == wanted) return true;
      line.clear();
    }
    return false;
  }

  // An engine that waits for its turn and has said so.
  std::unique_ptr<EngineProcess> Waiting() {
    auto engine = std::make_unique<EngineProcess>(Args("-vpm"));
    if (!ReadTo(*engine, kOneAhead)) throw std::runtime_error("the engine did not wait");
    return engine;
  }

  BtrfsVolume volume_{kMount};
  std::string row_;
  std::vector<std::string> paths_;
};

}  // namespace

TEST_F(EngineTurn, WaitsSaysSoAndGoesOn) {
  const EngineRun alone = RunEngine(Args("-vm"));
  ASSERT_EQ(0, alone.status) << alone.err;
  EXPECT_EQ("", alone.err);
  HeldRow held(row_);
  const auto engine = Waiting();
  EXPECT_TRUE(ReadTo(*engine, "processed 0 bytes"));
  EXPECT_TRUE(ReadTo(*engine, "processed 0 bytes"));
  held.Release();
  const EngineRun run = engine->Finish();
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(std::string("NOTE: ") + kOneAhead + "\n", run.err);
  EXPECT_EQ(alone.sizes, run.sizes);
  EXPECT_EQ(std::string::npos, run.out.find("waiting"));  // said once
}

TEST_F(EngineTurn, SaysItOnStandardErrorWithoutProgress) {
  HeldRow held(row_);
  EngineProcess engine(Args("-v"));
  ASSERT_TRUE(WaitUntil([&] { return engine.ErrSoFar() != ""; }));
  held.Release();
  const EngineRun run = engine.Finish();
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(std::string("NOTE: ") + kOneAhead + "\n", run.err);
  EXPECT_EQ(std::string::npos, run.out.find("waiting"));
}

TEST_F(EngineTurn, SaysWhenFewerAreAhead) {
  HeldRow first(row_, 1), second(row_, 2);
  EngineProcess engine(Args("-vpm"));
  ASSERT_TRUE(ReadTo(engine, "waiting for other runs on this file system: 2 ahead"));
  first.Release();
  ASSERT_TRUE(ReadTo(engine, kOneAhead));
  second.Release();
  EXPECT_EQ(0, engine.Finish().status);
}

TEST_F(EngineTurn, TwoRunsReadOneAfterTheOther) {
  const EngineRun alone = RunEngine(Args("-vm"));
  for (int attempt = 0; attempt < 1000; ++attempt) {
    EngineProcess first(Args("-vm"));
    const pid_t front = first.Front();
    while (SomebodyInRow(row_) != front && !first.FrontEndsWithin(0)) continue;
    if (!first.StopWorker() || SomebodyInRow(row_) != front) continue;
    const auto second = Waiting();
    first.ContinueWorker();
    EXPECT_EQ(alone.sizes, first.Finish().sizes);
    EXPECT_EQ(alone.sizes, second->Finish().sizes);
    return;
  }
  FAIL() << "every run ended before it could be stopped";
}

TEST_F(EngineTurn, HoldsItsPlaceWhileItReads) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    EngineProcess engine(Args("-vm"));
    if (!engine.StopWorker(static_cast<useconds_t>(attempt % 20) * 1000)) continue;
    if (SomebodyInRow(row_) != engine.Front()) continue;
    kill(engine.Front(), SIGKILL);
    ASSERT_TRUE(engine.FrontEndsWithin());
    EXPECT_EQ(0, SomebodyInRow(row_));
    return;
  }
  FAIL() << "no run was seen in its turn";
}

// It takes the minute after which a run that reads nothing counts as one that hangs.  A minute in
// the row is not standing still.
TEST_F(EngineTurn, ARunThatStandsStillGivesItsPlaceBack) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    EngineProcess still(Args("-vm"));
    if (!still.StopWorker(static_cast<useconds_t>(attempt % 20) * 1000)) continue;
    if (RunsInRow(row_) != std::vector<pid_t>{still.Front()}) continue;
    const double begin = Seconds();
    const auto next = Waiting();
    ASSERT_TRUE(next->StopWorker());
    EXPECT_TRUE(
        WaitUntil([&] { return RunsInRow(row_) == std::vector<pid_t>{next->Front()}; }, 120));
    EXPECT_LT(50, Seconds() - begin);
    sleep(1);
    EXPECT_EQ(std::vector<pid_t>{next->Front()}, RunsInRow(row_));
    next->ContinueWorker();
    still.ContinueWorker();
    EXPECT_EQ(next->Finish().sizes, still.Finish().sizes);
    return;
  }
  FAIL() << "no run was seen in its turn";
}

TEST_F(EngineTurn, DoesNotWaitForAStoppedRun) {
  const HeldRow held(row_);
  kill(held.Holder(), SIGSTOP);
  EXPECT_EQ(10u, RunEngine(Args("-vm")).sizes.size());
}

TEST_F(EngineTurn, DoesNotWaitForAnotherFileSystem) {
  const HeldRow held(std::string(kRows) + "/another");
  EXPECT_EQ(10u, RunEngine(Args("-vm")).sizes.size());
}

TEST_F(EngineTurn, QuestionsThatReadLittleDoNotWait) {
  const HeldRow held(row_);
  EXPECT_EQ(0, RunEngine({"--estimate", "-r", kMount}).status);
  EXPECT_EQ(0, RunEngine({"--check", "-r", kMount}).status);
}

TEST_F(EngineTurn, LeavesWhenTheReaderHasGoneWhileItWaits) {
  const HeldRow held(row_);
  double shortest = 60;
  for (int attempt = 0; attempt < 10 && shortest > 0.2; ++attempt) {
    const auto engine = Waiting();
    const double left = Seconds();
    engine->LeaveAsReader();
    ASSERT_TRUE(engine->FrontEndsWithin());
    shortest = std::min(shortest, Seconds() - left);
  }
  EXPECT_LT(shortest, 0.2);
}

TEST_F(EngineTurn, AStopEndsItWhileItWaits) {
  HeldRow held(row_);
  const auto engine = Waiting();
  kill(engine->Front(), SIGTERM);
  ASSERT_TRUE(engine->FrontEndsWithin());
  EXPECT_EQ(128 + SIGTERM, engine->Finish().status);
  held.Release();
  EXPECT_EQ(0, SomebodyInRow(row_));
}

TEST_F(EngineTurn, StatsSayThatThereIsATurn) {
  const EngineRun run = RunEngine(Args("--stats"));
  EXPECT_EQ("taken", StatOf(run, "turn"));
  EXPECT_NE("", StatOf(run, "phase turn"));
}

// The word that its turn has come was a write to a pipe once; when that failed, both processes
// waited for ever.
TEST_F(EngineTurn, ItsWorkerIsLetGoWithoutAWriteThatCanFail) {
  std::vector<std::string> argv = EngineCommand(Args("-vpm"));
  argv[0] = "/sbin/btrfs";
  std::filesystem::copy_file(ZORV_ENGINE_PATH, argv[0],
                             std::filesystem::copy_options::overwrite_existing);
  const int status = SyscallStepper(std::vector<WatchedCall>{{SYS_write}})
                         .Run(
                             [&] {
                               const pid_t engine = fork();
                               if (engine == 0) _exit(Program(argv, "/tmp/turn.out")());
                               return WaitForExit(engine);
                             },
                             [](const Step& step) {
                               const bool isWord = step.role == Role::kFront &&
                                                   step.text.find("pipe:") != std::string::npos;
                               return isWord ? Action::Fail(EIO) : Action::GoOn();
                             });
  std::filesystem::remove(argv[0]);
  EXPECT_EQ(0, status) << ReadFile("/tmp/turn.out");
}

// A number is worth more than order.
TEST_F(EngineTurn, ANumberIsGivenWhereThereIsNoRow) {
  WriteFile(kRows, "in the way");
  const EngineRun run = RunEngine(Args("-vm"));
  EXPECT_EQ(10u, run.sizes.size());
  EXPECT_EQ("", run.err);
  EXPECT_EQ("none (" + std::string(kRows) + ": Not a directory)",
            StatOf(RunEngine(Args("--stats")), "turn"));
}
