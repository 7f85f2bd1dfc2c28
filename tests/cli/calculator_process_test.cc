// The process that a record names is signalled and waited for only when it is the calculation's.
#include "cli/calculator_process.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/cli/cli_world.h"
#include "tests/cli/stranger.h"
#include "tests/support/sanitizer.h"
#include "tests/support/syscall_stepper.h"

using namespace ZorvTest;

namespace {

constexpr char kTasks[] = "/run/zorvbtrfssnapusage/task_status/";

constexpr char kOutput[] = "/tmp/tool.out";

// Whether it is gone; reaps it where the stepper has made this process the one that has to.
bool HasEnded(pid_t pid) {
  (void)waitpid(pid, nullptr, WNOHANG);
  return kill(pid, 0) != 0 && errno == ESRCH;
}

class CalculatorProcess : public CliWorld {
 protected:
  // What a command did that could not look at this process.
  static void ExpectNotLookedAt(int status, const std::string& pid, int error) {
    EXPECT_EQ(1, status);
    EXPECT_THAT(ReadFile(kOutput), HasSubstr("zorv-snapusage: process " + pid +
                                             " cannot be looked at (" + strerror(error) + "); "));
  }

  // A record of photos that says that its calculation runs, of a process that is gone.
  std::string RecordOfADeadRun() {
    WaitingEngine();
    MustRun(Argv({"start", "photos"}));
    EXPECT_TRUE(EngineWaits());
    kill(CalculatorPid(), SIGKILL);
    EXPECT_TRUE(Settled());
    return kTasks + ParseJson(ReadFile(kMap))["photos"]["task_id"].asString();
  }
};

TEST_F(CalculatorProcess, EveryMarkIsLookedFor) {
  const struct {
    const char* name;
    Likeness likeness;
    bool calculator;
  } cases[] = {
      {"all", {}, true},
      {"caught", {.stopBlocked = false, .stopCaught = true}, true},
      {"with root's rights, of a user's", {.startedByRoot = false}, true},
      {"of an ordinary user", {.root = false}, false},
      {"without the library", {.library = false}, false},
      {"in the session of another", {.session = false}, false},
      {"with an input", {.nullInput = false}, false},
      {"with an output", {.nullOutput = false}, false},
      {"that a stop ends", {.stopBlocked = false}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Stranger stranger(c.likeness);
    EXPECT_EQ(c.calculator, ZorvSnapUsage::IsCalculator(stranger.Pid()));
  }
  EXPECT_FALSE(ZorvSnapUsage::IsCalculator(1));
  EXPECT_FALSE(ZorvSnapUsage::IsCalculator(getpid()));
}

TEST_F(CalculatorProcess, RealOneIsKnown) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  EXPECT_TRUE(ZorvSnapUsage::IsCalculator(CalculatorPid()));
  Background stop(Argv({"stop", "photos"}));
  EXPECT_TRUE(StopArrives());
  Release();
  EXPECT_EQ(0, stop.Wait().status);
}

TEST_F(CalculatorProcess, StrangerIsNeitherSignalledNorWaitedFor) {
  const std::string record = RecordOfADeadRun();
  const struct {
    const char* name;
    Likeness likeness;
  } cases[] = {
      {"of an ordinary user", {.root = false}},
      {"without the library", {.library = false}},
      {"in the session of another", {.session = false}},
      {"that a stop ends", {.stopBlocked = false}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Stranger stranger(c.likeness);
    EditJson(record, {"pid"}, std::to_string(stranger.Pid()));
    EXPECT_THAT(MustRun(Argv({"status", "photos"})),
                HasSubstr("process:         gone without a result"));
    const CommandResult stop = Tool({"stop", "photos"});
    EXPECT_EQ(11, stop.status);
    EXPECT_THAT(stop.err, HasSubstr("its process is gone"));
    EXPECT_EQ(4, Tool({"run", "photos"}).status) << "for two minutes";
    EXPECT_EQ(10, Tool({"show", "photos"}).status);
    EXPECT_FALSE(stranger.WasSignalled());
  }
}

TEST_F(CalculatorProcess, NumberOfNoProcessIsADeadOne) {
  const std::string record = RecordOfADeadRun();
  Stranger stranger({});  // has all marks: its number must not be read into these
  const std::string alias = std::to_string((1ULL << 32) + stranger.Pid());
  for (const std::string& pid :
       {std::string("0"), std::string("1"), std::string("-1"), std::string("-5"),
        std::string(" 12"), std::string("12x"), std::string("x"), std::string("2147483648"),
        std::string("99999999999"), std::string("99999999999999999999999"), alias,
        " " + std::to_string(stranger.Pid()), "-" + std::to_string(stranger.Pid()),
        std::to_string(stranger.Pid()) + " "}) {
    SCOPED_TRACE(pid);
    EditJson(record, {"pid"}, pid);
    EXPECT_THAT(MustRun(Argv({"status", "photos"})),
                HasSubstr("process:         gone without a result"));
    const CommandResult stop = Tool({"stop", "photos"});
    EXPECT_EQ(11, stop.status);
    EXPECT_THAT(stop.err, HasSubstr("its process is gone"));
  }
  EXPECT_FALSE(stranger.WasSignalled());
  EXPECT_EQ(0, Tool({"clean", "photos"}).status);
}

// A process that could not be looked at was gone, and `clean` removed what it was still to finish.
TEST_F(CalculatorProcess, OneThatCannotBeHeldIsNotGone) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  const std::string pid = std::to_string(CalculatorPid());
  for (const int error : {ENOMEM, EMFILE, EPERM, ENOSYS}) {
    for (const char* command : {"clean", "status", "stop", "run"}) {
      SCOPED_TRACE(std::string(command) + ": " + strerror(error));
      const int status = SyscallStepper(std::vector<WatchedCall>{{SYS_pidfd_open}})
                             .Run(Program(Argv({command, "photos"}), kOutput),
                                  [&](const Step&) { return Action::Fail(error); });
      ExpectNotLookedAt(status, pid, error);
    }
  }
  Release();
  ASSERT_TRUE(Settled());
  EXPECT_EQ(3u, Shown()["snapshots"].size()) << "its result was not lost";
}

TEST_F(CalculatorProcess, OneThatProcDoesNotShowIsNotGone) {
  WORKS_WITHOUT_PROC();
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  const std::string pid = std::to_string(CalculatorPid());
  for (const char* command : {"clean", "status", "stop", "run"}) {
    SCOPED_TRACE(command);
    const std::string hidden = std::string("mount -t tmpfs none /proc && LD_LIBRARY_PATH=") +
                               ZORV_BINARY_DIR + "/lib " + ZORV_CLI_PATH + " " + command +
                               " photos > " + kOutput + " 2>&1";
    ExpectNotLookedAt(ZorvTest::Run({"unshare", "--mount", "bash", "-c", hidden}).status, pid,
                      ENOENT);
  }
  Release();
  ASSERT_TRUE(Settled());
  EXPECT_EQ(3u, Shown()["snapshots"].size()) << "its result was not lost";
}

// The record says that it is at work, and by the time its process is looked for it has ended well.
TEST_F(CalculatorProcess, OneThatEndsWhileItIsLookedAtDidNotDie) {
  const struct {
    std::vector<std::string> words;
    const char* says;
  } cases[] = {
      {{"clean", "--interrupted"}, "nothing to remove\n"},
      {{"status", "photos"}, "state:           done\n"},
      {{"stop", "photos"}, "nothing to stop, share 'photos': state done\n"},
      {{"wait", "photos"}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words[0]);
    WaitingEngine();
    MustRun(Argv({"start", "photos"}));
    EXPECT_TRUE(EngineWaits());
    const pid_t pid = CalculatorPid();
    bool ended = false;
    const int status = SyscallStepper(std::vector<WatchedCall>{{SYS_pidfd_open}})
                           .Run(Program(Argv(c.words), kOutput), [&](const Step&) {
                             if (ended) return Action::GoOn();
                             ended = true;
                             Release();
                             EXPECT_TRUE(Settled());
                             EXPECT_TRUE(WaitUntil([&] { return HasEnded(pid); }));
                             return Action::GoOn();
                           });
    EXPECT_TRUE(ended);
    EXPECT_EQ(0, status);
    EXPECT_THAT(ReadFile(kOutput), HasSubstr(c.says));
    EXPECT_THAT(ReadFile(kOutput), Not(HasSubstr("gone")));
    EXPECT_EQ(3u, Shown()["snapshots"].size()) << "the result is kept";
    MustRun(Argv({"clean", "photos"}));
  }
}

}  // namespace
