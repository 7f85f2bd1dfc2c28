// System calls fail, one after the other, in the engine's two processes and in the program.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "base/unique_fd.h"
#include "tests/support/command.h"
#include "tests/support/torture.h"
#include "tests/torture/fault_plan.h"
#include "tests/torture/scarcity_world.h"

using namespace ZorvTest;

namespace {

constexpr char kOut[] = "/tmp/failing.out";
constexpr char kErr[] = "/tmp/failing.err";

// What a dynamic program does before its first line. When the first of it fails it cannot speak
// yet; later it says so itself.
bool IsOfTheLoader(int status) { return status == 127; }
bool IsMute(const Step& step) { return step.call == SYS_mmap && step.ofCall == 1; }
bool IsBeforeTheProgram(const Step& step) {
  return Has(step.text, kOut) && (step.call == SYS_openat || step.call == SYS_dup2);
}
bool LoadsLibraries(const Step& step) { return Has(step.text, ".so"); }

class FailingCalls : public testing::Test {
 protected:
  explicit FailingCalls(int files = 0) : world_(files) {}

  // Tries the faults while there is time, and those that are always tried; `judge` says what must
  // not be.
  template <typename Judge>
  void Try(const std::function<int()>& body, const IsWanted& wanted, const Budget& budget,
           const Judge& judge) {
    const std::vector<Fault> faults = PlanFaults(body, wanted, AllActions);
    world_.Restore();
    for (const Fault& fault : faults) {
      if (!fault.always && !budget.IsLeft()) continue;
      SCOPED_TRACE(fault.Name());
      try {
        const FaultyRun run = RunWithFault(body, fault);
        if (!run.hit.empty()) Note(fault, judge(fault, run));
      } catch (const std::exception& error) {
        Note(fault, {error.what()});
      }
    }
    EXPECT_GT(tried_, 0u);
    Figure("faults", tried_);
    Figure("of faults", faults.size());
    for (const auto& [name, count] : counts_) Figure(name, count);
    Figure("reported", reported_);
    Figure("wrong numbers", wrongNumbers_);
    Figure("lost", lost_);
  }

  // "subvol" lines of an output that are not those of the share; empty when all are right.
  std::string WrongLines(const std::string& out, SubvolumeSizes* found) const {
    std::istringstream lines(out);
    std::string wrong;
    for (std::string line; std::getline(lines, line);) {
      unsigned long long id = 0, bytes = 0;
      if (sscanf(line.c_str(), "subvol(%llu) %llu bytes", &id, &bytes) != 2) continue;
      (*found)[id] = bytes;
      const auto known = world_.Expected().find(id);
      if (known == world_.Expected().end() || known->second != bytes) wrong += line + "; ";
    }
    return wrong;
  }

  ScarcityWorld world_;
  unsigned long long reported_ = 0;

 private:
  void Note(const Fault& fault, const std::vector<std::string>& wrong) {
    ++tried_;
    ++counts_[NameOfCall(fault.step) + " " + fault.What()];
    lost_ += !wrong.empty();
    for (const std::string& what : wrong) {
      wrongNumbers_ += Has(what, "wrong numbers");
      ADD_FAILURE() << what;
    }
  }

  unsigned long long tried_ = 0, wrongNumbers_ = 0, lost_ = 0;
  std::map<std::string, unsigned long long> counts_;
};

// ---- The engine ---------------------------------------------------------------------------------

class FailingCallsOfTheEngine : public FailingCalls {
 protected:
  FailingCallsOfTheEngine() : FailingCalls(2000) { world_.UseRealEngine(); }

  // Runs the engine as the library does, its output on a pipe, and leaves what it said in files.
  int RunEngine() const {
    std::vector<std::string> argv = {"/sbin/btrfs", "subvolume", "size", "-vpm", "-r", "/volume1"};
    for (const std::string& id : world_.IDs()) argv.push_back(id);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return 124;
    UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
    const pid_t engine = fork();
    if (engine == 0) {
      dup2(writeEnd.Get(), STDOUT_FILENO);
      dup2(open(kErr, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
      _exit(Program(argv)());
    }
    writeEnd.Reset();
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(readEnd.Get(), buffer, sizeof buffer)) > 0;)
      out.append(buffer, static_cast<size_t>(n));
    WriteFile(kOut, out);
    return WaitForExit(engine);
  }

  std::vector<std::string> Judge(const Fault& fault, const FaultyRun& run) {
    const std::string out = ReadFile(kOut), err = ReadFile(kErr);
    std::vector<std::string> wrong;
    // The front kills a worker that it needs no more.
    if (Has(run.crashed, "front") ||
        (!run.crashed.empty() && !Has(run.crashed, "worker by Killed")))
      wrong.push_back("ended by a signal: " + run.crashed);
    SubvolumeSizes found;
    const std::string lines = WrongLines(out, &found);
    if (!lines.empty()) wrong.push_back("wrong numbers: " + lines);
    if (run.status == 0 && found != world_.Expected())
      wrong.push_back("some numbers are missing, and status 0:\n" + out + err);
    if (run.status == 0 || IsOfTheLoader(run.status)) return wrong;
    ++reported_;
    if (run.status != 1) wrong.push_back("exit status " + std::to_string(run.status));
    if (!SaysWhy(out, err, fault)) wrong.push_back("it does not say why:\n" + out + err);
    if (fault.action.kind == Action::kShorten || IsTriedAgain(fault))
      wrong.push_back("it should have gone on:\n" + out + err);
    return wrong;
  }

 private:
  // A signal in the middle of its own reading and writing.
  static bool IsTriedAgain(const Fault& fault) {
    const long call = fault.step.call;
    return fault.What() == "EINTR" && !LoadsLibraries(fault.step) &&
           (call == SYS_read || call == SYS_pread64 || call == SYS_write || call == SYS_poll ||
            call == SYS_io_uring_enter);
  }

  // On both ways out, unless it is one of them that has failed.
  static bool SaysWhy(const std::string& out, const std::string& err, const Fault& fault) {
    const bool ofOutput = fault.step.role == Role::kFront && fault.step.call == SYS_write;
    const bool onBoth = Has(out, "\nexclusive sizes unavailable: ") ||
                        out.rfind("exclusive sizes unavailable: ", 0) == 0;
    return ofOutput ? onBoth || Has(err, "ERROR: ") : onBoth && Has(err, "ERROR: ");
  }
};

TEST_F(FailingCallsOfTheEngine, OneCall) {
  const Budget budget(0.5);
  Try([this] { return RunEngine(); },
      [](const Step& step) {
        return (step.role == Role::kFront && !IsMute(step)) || step.role == Role::kWorker;
      },
      budget, [this](const Fault& fault, const FaultyRun& run) { return Judge(fault, run); });
}

// ---- The program --------------------------------------------------------------------------------

class FailingCallsOfTheProgram : public FailingCalls {
 protected:
  static std::vector<std::string> Argv(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {ZORV_CLI_PATH};
    argv.insert(argv.end(), words.begin(), words.end());
    return argv;
  }

  std::vector<std::string> Judge(const Fault& fault, const FaultyRun& run) {
    const std::string said = ReadFile(kOut);
    std::vector<std::string> wrong;
    // A writer whose reader has failed and gone ends so.
    const bool readerFailed = Has(run.hit[0].text, "read(pipe:");
    if (!run.crashed.empty() && !(readerFailed && Has(run.crashed, "by Broken pipe")))
      wrong.push_back("ended by a signal: " + run.crashed);
    if (run.status == 0)
      JudgeReport(said, &wrong);
    else
      JudgeFailure(fault, run, said, &wrong);
    Aftermath aftermath;
    Tolerated tolerated;
    if (fault.step.call == SYS_unlink) tolerated.notRemoved = FileOf(run.hit[0]);
    tolerated.unreadable.insert(FileOf(run.hit[0]));
    world_.JudgeFiles(tolerated, &aftermath);
    world_.JudgeTemporaryFiles(tolerated, &aftermath);
    wrong.insert(wrong.end(), aftermath.wrong.begin(), aftermath.wrong.end());
    JudgeNext(&wrong);
    world_.Restore();
    return wrong;
  }

 private:
  static std::string FileOf(const Step& step) {
    const size_t begin = step.text.find('(') + 1;
    return step.text.substr(begin, step.text.find_first_of(",)", begin) - begin);
  }

  void JudgeReport(const std::string& said, std::vector<std::string>* wrong) const {
    for (const auto& [id, bytes] : world_.Expected())
      if (!Has(said, std::to_string(bytes)))
        wrong->push_back("wrong numbers: status 0 without " + std::to_string(bytes) + "\n" + said);
  }

  void JudgeFailure(const Fault& fault, const FaultyRun& run, const std::string& said,
                    std::vector<std::string>* wrong) {
    if (IsOfTheLoader(run.status)) return;
    ++reported_;
    if (run.status > 16 || run.status == 2)
      wrong->push_back("exit status " + std::to_string(run.status) + "\n" + said);
    const bool ofOutput = fault.step.call == SYS_write || fault.step.call == SYS_writev;
    if (!Has(said, "zorv-snapusage: ") && !ofOutput)
      wrong->push_back("it does not say why, status " + std::to_string(run.status) + "\n" + said);
    const bool ownLock = Has(run.hit[0].text, "/run/zorv-snapusage.lock");
    if (ownLock && fault.What() == "EINTR") wrong->push_back("it did not wait on: " + said);
    if (fault.action.kind == Action::kShorten && !Has(run.hit[0].text, ".so"))
      wrong->push_back("something short was taken for a failure: " + said);
  }

  void JudgeNext(std::vector<std::string>* wrong) const {
    CommandResult next = ZorvTest::Run(Argv({"run", "photos", "--quiet"}));
    if (next.status == 4) {  // what was killed or could not begin holds the share
      ZorvTest::Run(Argv({"clean", "photos"}));
      next = ZorvTest::Run(Argv({"run", "photos", "--quiet"}));
    }
    Aftermath aftermath;
    world_.JudgeNumbers({}, &aftermath);
    world_.JudgeTemporaryFiles({}, &aftermath);
    if (next.status != 0 || !aftermath.wrong.empty())
      wrong->push_back("the next run: " + std::to_string(next.status) + " " + next.err +
                       (aftermath.wrong.empty() ? "" : aftermath.wrong[0]));
  }
};

// However long that takes: no call of the library, whose locks may fail, comes in between.
TEST_F(FailingCallsOfTheProgram, OneCallOnItsLock) {
  Try(
      Program(Argv({"run", "photos", "--quiet", "--format", "json"}), kOut),
      [](const Step& step) {
        return step.role == Role::kCaller && Has(step.text, "/run/zorv-snapusage.lock");
      },
      Budget(100), [this](const Fault& fault, const FaultyRun& run) { return Judge(fault, run); });
}

TEST_F(FailingCallsOfTheProgram, OneCall) {
  const Budget budget(0.5);
  Try(
      Program(Argv({"run", "photos", "--quiet", "--format", "json"}), kOut),
      [](const Step& step) {
        return step.role == Role::kCaller && !IsMute(step) && !LoadsLibraries(step) &&
               !IsBeforeTheProgram(step);
      },
      budget, [this](const Fault& fault, const FaultyRun& run) { return Judge(fault, run); });
}

}  // namespace
