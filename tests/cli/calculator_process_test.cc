// The process that a record names is signalled and waited for only when it is the calculation's.
#include "cli/calculator_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/cli/cli_world.h"
#include "tests/support/user_rights.h"

using namespace ZorvTest;

namespace {

constexpr char kTasks[] = "/run/zorvbtrfssnapusage/task_status/";

// What a stranger has in common with a calculation's process.
struct Likeness {
  bool root = true;
  bool library = true;
  bool session = true;
  bool nullInput = true;
  bool nullOutput = true;
  bool stopBlocked = true;
  bool stopCaught = false;
};

volatile sig_atomic_t gStops = 0;

// A process that waits for its end.
class Stranger {
 public:
  explicit Stranger(const Likeness& likeness) {
    // Of neither pid nor stop may it be said that it was the test's.
    pid_ = fork();
    if (pid_ == 0) Become(likeness);
    int status = 0;
    if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status))
      throw std::runtime_error("no stranger");
    kill(pid_, SIGCONT);
  }
  ~Stranger() {
    kill(pid_, SIGKILL);
    (void)WaitForExit(pid_);
  }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  pid_t Pid() const { return pid_; }

  // Whether a SIGTERM has come: it has died of it, holds it back, or said so by its name.
  bool WasAskedToStop() const {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) return true;
    const std::string text = ReadFile("/proc/" + std::to_string(pid_) + "/status");
    const size_t at = text.find("ShdPnd:");
    return (strtoull(text.c_str() + at + sizeof "ShdPnd:", nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
  }

 private:
  [[noreturn]] static void Become(const Likeness& likeness) {
    if (likeness.session) setsid();
    const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const UniqueFd other(open("/dev/zero", O_RDWR | O_CLOEXEC));
    dup2(likeness.nullInput ? null.Get() : other.Get(), STDIN_FILENO);
    dup2(likeness.nullOutput ? null.Get() : other.Get(), STDOUT_FILENO);
    const UniqueFd library(
        open(ZORV_BINARY_DIR "/lib/libzorvbtrfssnapusage.so.1", O_RDONLY | O_CLOEXEC));
    if (likeness.library) (void)mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, library.Get(), 0);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    if (likeness.stopBlocked) sigprocmask(SIG_BLOCK, &stop, nullptr);
    if (likeness.stopCaught) signal(SIGTERM, [](int) { gStops = 1; });
    if (!likeness.root) BecomeUser(4711);
    raise(SIGSTOP);
    for (;;) pause();
  }

  pid_t pid_ = -1;
};

class CalculatorProcess : public CliWorld {
 protected:
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
      {"of an ordinary user", {.root = false}, false},
      {"without the library", {.library = false}, false},
      {"in the session of another", {.session = false}, false},
      {"with an input", {.nullInput = false}, false},
      {"with an output", {.nullOutput = false}, false},
      {"that a stop ends", {.stopBlocked = false}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Stranger stranger(c.likeness);
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
    const Stranger stranger(c.likeness);
    EditJson(record, {"pid"}, std::to_string(stranger.Pid()));
    EXPECT_THAT(MustRun(Argv({"status", "photos"})),
                HasSubstr("process:         gone without a result"));
    const CommandResult stop = Tool({"stop", "photos"});
    EXPECT_EQ(11, stop.status);
    EXPECT_THAT(stop.err, HasSubstr("its process is gone"));
    EXPECT_EQ(4, Tool({"run", "photos"}).status) << "for two minutes";
    EXPECT_EQ(10, Tool({"show", "photos"}).status);
    EXPECT_FALSE(stranger.WasAskedToStop());
  }
}

TEST_F(CalculatorProcess, NumberOfNoProcessIsADeadOne) {
  const std::string record = RecordOfADeadRun();
  const Stranger stranger({.stopBlocked = false});
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
  EXPECT_FALSE(stranger.WasAskedToStop());
  EXPECT_EQ(0, Tool({"clean", "photos"}).status);
}

}  // namespace
