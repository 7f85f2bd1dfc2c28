// zorv-snapusage start: calculate in the background.
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/options.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

// What became of a launch, as it goes through the pipe: the exit status as one byte, then the line
// to print, which says what was started or why nothing was.
std::string OutcomeText(int status, const std::string& line) {
  return static_cast<char>(status) + line;
}

std::string TryLaunch(const Selection& selection) {
  try {
    const Launched launched = Launch(selection);
    const std::string without =
        launched.leftOut.empty()
            ? ""
            : fmt::format(", without {} whose names are not UTF-8", launched.leftOut.size());
    return OutcomeText(kOk, fmt::format("started the calculation of {} snapshots of share {}{}",
                                        launched.asked.size(), Quoted(selection.share), without));
  } catch (const Failure& failure) {
    return OutcomeText(failure.Status(), failure.what());
  }
}

// In the helper: who ends the program ends its wait for a lock as well. Held back, as the others
// are, while the share is claimed and launched.
void DieWith(pid_t parent) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  (void)signal(SIGTERM, SIG_DFL);
  (void)sigprocmask(SIG_UNBLOCK, &stop, nullptr);
  (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(kSystemFailure);
}

// In the helper: the launch without standard streams.
[[noreturn]] void LaunchAndTell(const Selection& selection, int pipe, pid_t parent) {
  DieWith(parent);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(null, stream);
  const std::string outcome = TryLaunch(selection);
  (void)!write(pipe, outcome.data(), outcome.size());
  _exit(kOk);
}

// Also when SIGCHLD is ignored, and there is no status to be had.
void WaitForEnd(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
}

// The calculation keeps every descriptor of the process that launches it, so that one is a helper
// whose standard streams lead nowhere: a terminal or a pipe of ours is not held until the end of
// the calculation. What the helper says is read after its end, not up to the end of the pipe, which
// the calculation keeps open too.
std::string LaunchInHelper(const Selection& selection) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw SystemFailure("no pipe could be made");
  const pid_t self = getpid();
  const pid_t helper = fork();
  if (helper < 0) throw SystemFailure("no process could be started");
  if (helper == 0) LaunchAndTell(selection, ends[1], self);
  WaitForEnd(helper);
  char outcome[8192];
  const ssize_t length = read(ends[0], outcome, sizeof outcome);
  (void)close(ends[0]);
  (void)close(ends[1]);
  return std::string(outcome, length > 0 ? static_cast<size_t>(length) : 0);
}

int Start(const Selection& selection) {
  const std::string outcome = LaunchInHelper(selection);
  if (outcome.empty()) throw SystemFailure("the calculation could not be started");
  const int status = static_cast<unsigned char>(outcome[0]);
  if (status != kOk) throw Failure(static_cast<ExitStatus>(status), outcome.substr(1));
  fmt::print("{}\n", outcome.substr(1));
  return kOk;
}

}  // namespace

void AddStart(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("start", "Start a calculation in the background");
  const auto selection = std::make_shared<Selection>();
  AddSelection(*command, *selection);
  command->footer(
      "Follow it with status, see the result with show, end it with stop.\n"
      "Example: zorv-snapusage start photos GMT+08-2024.03.05-17.04.09");
  command->callback([selection, &action] { action = [selection] { return Start(*selection); }; });
}

}  // namespace ZorvSnapUsage
