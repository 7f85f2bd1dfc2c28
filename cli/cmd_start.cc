// zorv-snapusage start: calculate in the background.
#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/launch_choice.h"
#include "cli/options.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

// What is said on the way, as it goes through the pipe, behind a byte that is no exit status.
constexpr char kNote = '\xff';

// What became of a launch, likewise: the exit status as one byte, then the line to print, which
// says what was started or why nothing was.
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
    return OutcomeText(kOk, fmt::format("started the calculation of {} of share {}{}",
                                        CountOf(launched.asked.size(), "snapshot"),
                                        Quoted(selection.share), without));
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
  gListener = [pipe](const std::string& text) {
    const std::string note = kNote + text;
    (void)!write(pipe, note.data(), note.size());
  };
  const std::string outcome = TryLaunch(selection);
  (void)!write(pipe, outcome.data(), outcome.size());
  _exit(kOk);
}

// Passes on what the helper has said on the way; its outcome, empty when there is none yet.
std::string TakeOutcome(int pipe) {
  std::string outcome;
  char packet[PIPE_BUF];
  for (ssize_t length; (length = read(pipe, packet, sizeof packet)) > 0;) {
    const std::string text(packet, static_cast<size_t>(length));
    if (text[0] == kNote)
      ToStandardError(text.substr(1));
    else
      outcome += text;
  }
  return outcome;
}

// What the helper has come to, at its end. Also when SIGCHLD is ignored, and there is no status to
// be had.
std::string Listen(pid_t helper, int pipe) {
  constexpr int kLookMilliseconds = 100;
  std::string outcome;
  for (bool ended = false; !ended;) {
    pollfd said = {pipe, POLLIN, 0};
    if (outcome.empty()) (void)poll(&said, 1, kLookMilliseconds);
    ended = waitpid(helper, nullptr, outcome.empty() ? WNOHANG : 0) != 0;
    outcome += TakeOutcome(pipe);
  }
  return outcome;
}

// The calculation keeps every descriptor of the process that launches it, so that one is a helper
// whose standard streams lead nowhere: a terminal or a pipe of ours is not held until the end of
// the calculation. What the helper says is listened to until its end, not up to the end of the
// pipe, which the calculation keeps open too. Each write to that pipe is read by itself.
std::string LaunchInHelper(const Selection& selection) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK | O_DIRECT) != 0)
    throw SystemFailure("no pipe could be made");
  const pid_t self = getpid();
  const pid_t helper = fork();
  if (helper < 0) throw SystemFailure("no process could be started");
  if (helper == 0) LaunchAndTell(selection, ends[1], self);
  const std::string outcome = Listen(helper, ends[0]);
  (void)close(ends[0]);
  (void)close(ends[1]);
  return outcome;
}

void StartShare(const Selection& selection) {
  AwaitShare(selection.share);  // here: the helper cannot say anything
  const std::string outcome = LaunchInHelper(selection);
  if (outcome.empty()) throw SystemFailure("the calculation could not be started");
  const int status = static_cast<unsigned char>(outcome[0]);
  if (status != kOk) throw Failure(static_cast<ExitStatus>(status), outcome.substr(1));
  ToStandardOutput(outcome.substr(1) + "\n");
}

struct StartOptions {
  ShareChoice shares;
  Selection selection;  // of each share
};

int Start(const StartOptions& options) {
  const SharesChosen chosen = SharesToCalculate(options.shares, options.selection);
  return chosen.After(ForEachShare(
      options.shares, chosen.shares,
      [&options](const std::string& share) { StartShare(SelectionOf(share, options.selection)); }));
}

}  // namespace

void AddStart(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("start", "Start a calculation in the background");
  const auto options = std::make_shared<StartOptions>();
  AddShareChoice(*command, options->shares, "All shares");
  AddSelection(*command, options->selection);
  command->footer(
      "Follow it with status or wait, see the result with show, end it with stop.\n"
      "Example: zorv-snapusage start photos");
  command->callback([options, &action] { action = [options] { return Start(*options); }; });
}

}  // namespace ZorvSnapUsage
