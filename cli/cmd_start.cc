// zorv-snapusage start: calculate in the background.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/options.h"
#include "cli/silent_stderr.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

// The calculation goes on after this program: it must not hold the terminal or a pipe of ours.
Launched LaunchDetached(const Selection& selection) {
  const SilentStderr silent;
  return Launch(selection);
}

int Start(const Selection& selection) {
  const Launched launched = LaunchDetached(selection);
  fmt::print("started the calculation of {} snapshots of share {}\n", launched.asked.size(),
             Quoted(selection.share));
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
