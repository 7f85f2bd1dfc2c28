// zorv-snapusage: how much space the snapshots of a share take.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/failure.h"
#include "cli/help.h"
#include "cli/nearest.h"
#include "cli/standard_streams.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kName[] = "zorv-snapusage";

void AddCommands(CLI::App& program, Action& action) {
  program.set_version_flag("--version", fmt::format("{} {}", kName, ZORV_VERSION),
                           "Print the version");
  SetHelpStyle(program);
  program.add_flag_callback(
      "--exit-statuses", [] { throw CLI::CallForVersion(ExitStatusTable(), kOk); },
      "Print what they mean");
  program.footer("Example: zorv-snapusage run photos. Each command has a --help of its own.");
  // Also keeps a share that is called like a command from being taken for one.
  program.require_subcommand(1);
  AddShares(program, action);
  AddRun(program, action);
  AddStart(program, action);
  AddWait(program, action);
  AddStatus(program, action);
  AddShow(program, action);
  AddPlan(program, action);
  AddExplain(program, action);
  AddWhyheld(program, action);
  AddStop(program, action);
  AddClean(program, action);
  AddNames(program, action);
  AddReminder(program, action);
}

// What to do about output that cannot be written, as the stream itself shows it.
const char* NextForOutput() {
  // HoldStandardStreams has put a descriptor that only reads in the place of a closed one.
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  if (flags >= 0 && (flags & O_ACCMODE) == O_RDONLY)
    return "standard output is closed: let it lead somewhere";
  pollfd stream = {STDOUT_FILENO, POLLOUT, 0};
  if (poll(&stream, 1, 0) == 1 && (stream.revents & POLLERR) != 0)
    return "whoever read it has gone: let it be read to its end";
  return "see to the space on its disk";
}

// Output that could not be written whole, on a full disk for one, is no success.
int FlushOutput(int status) {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
  Say(std::string("the output could not be written; ") + NextForOutput());
  return status == kOk ? static_cast<int>(kSystemFailure) : status;
}

int Perform(const Action& action) {
  try {
    return FlushOutput(action());
  } catch (const Failure& failure) {
    // What was printed before comes first, also where both go to one place.
    const int status = FlushOutput(failure.Status());
    Say(failure.what());
    return status;
  }
}

std::vector<std::string> CommandNames(const CLI::App& program) {
  std::vector<std::string> names;
  for (const CLI::App* command : program.get_subcommands({})) names.push_back(command->get_name());
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options())
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

// What is wrong with a command line, and what to do about it.
std::string Complaint(const CLI::App& program, const CLI::ParseError& error) {
  const std::vector<CLI::App*> chosen = program.get_subcommands();
  const std::vector<std::string> words = program.remaining(/*recurse=*/true);
  const std::string what = !chosen.empty() || words.empty()
                               ? std::string(error.what())
                               : fmt::format("there is no command {}", Quoted(words.front()));
  const std::string help =
      fmt::format("see {}{} --help", kName, chosen.empty() ? "" : " " + chosen.front()->get_name());
  if (words.empty()) return what + "; " + help;
  const std::string word = words.front().substr(0, words.front().find('='));
  return what + "; " +
         DidYouMean(word, chosen.empty() ? CommandNames(program) : OptionNames(*chosen.front()),
                    help);
}

int Main(int argc, char** argv) {
  if (!HoldStandardStreams()) return kSystemFailure;
  // Also for the calculations that are started: a file that may not grow is a failed write, and not
  // the end of a process in the middle of one.
  (void)signal(SIGXFSZ, SIG_IGN);
  // A caller may ignore how its children end, and that is inherited: nobody would learn that an
  // engine failed.
  (void)signal(SIGCHLD, SIG_DFL);
  // Also for the calculations that are started: whatever the caller's is, nobody but root writes
  // into what they make, and root can.
  (void)umask(022);
  openlog(kName, LOG_PID, LOG_USER);
  CLI::App program("How much space the snapshots of a share take: the bytes that each holds alone.",
                   kName);
  Action action;
  AddCommands(program, action);
  try {
    program.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // Help and version are ends of this kind as well.
    if (error.get_exit_code() == 0) return FlushOutput(program.exit(error));
    Say(Complaint(program, error));
    return kWrongUsage;
  }
  return Perform(action);
}

}  // namespace
}  // namespace ZorvSnapUsage

int main(int argc, char** argv) {
  try {
    return ZorvSnapUsage::Main(argc, argv);
  } catch (const std::exception& error) {
    ZorvSnapUsage::ToStandardError(fmt::format("zorv-snapusage: {}\n", error.what()));
    return ZorvSnapUsage::kSystemFailure;
  }
}
