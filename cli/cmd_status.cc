// zorv-snapusage status: what is recorded of a share's latest calculation.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/begin_work.h"
#include "cli/calculation.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/options.h"
#include "cli/text.h"
#include "cli/time_text.h"

namespace ZorvSnapUsage {
namespace {

void PrintLine(const char* label, const std::string& text) {
  fmt::print("{:<16} {}\n", fmt::format("{}:", label), text);
}

void PrintTimes(const Calculation& calculation) {
  if (calculation.started) PrintLine("started", TimeForPeople(*calculation.started));
  if (calculation.ended) PrintLine("ended", TimeForPeople(*calculation.ended));
}

void PrintProgress(const Calculation& calculation) {
  if (calculation.processedBytes) PrintLine("read", HumanBytes(*calculation.processedBytes));
  if (calculation.exclusiveBytes) PrintLine("exclusive", HumanBytes(*calculation.exclusiveBytes));
}

void PrintError(const Calculation& calculation) {
  if (calculation.errorCode && *calculation.errorCode != 0)
    PrintLine("error code",
              fmt::format("{} ({})", *calculation.errorCode, ReasonOf(*calculation.errorCode)));
  if (!calculation.errorMessage.empty()) PrintLine("error", Escaped(calculation.errorMessage));
  if (!calculation.command.empty()) PrintLine("command", Escaped(calculation.command));
}

void PrintActivity(const std::string& share, const Calculation& calculation) {
  switch (ActivityOf(share, calculation)) {
    case Activity::kRunning:
      PrintLine("process", std::to_string(*calculation.pid));
      break;
    case Activity::kDied:
      PrintLine("process", "gone without a result; remove the record with: zorv-snapusage clean " +
                               ShellWord(share));
      break;
    default:
      break;
  }
}

int Status(const std::string& share) {
  BeginWorkOn(share);
  const std::string taskID = RequireTask(share);
  const Calculation calculation = RequireCalculation(share, taskID);
  PrintLine("share", Escaped(share));
  PrintLine("state", calculation.stateWord);
  PrintLine("task", Escaped(taskID));
  PrintActivity(share, calculation);
  PrintTimes(calculation);
  PrintProgress(calculation);
  PrintError(calculation);
  return kOk;
}

}  // namespace

void AddStatus(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("status", "Show the state of a share's latest calculation");
  const auto share = std::make_shared<std::string>();
  AddShareArgument(*command, *share);
  command->footer(
      "States: ready, process, done, stop, fail.\n"
      "Example: zorv-snapusage status photos");
  command->callback([share, &action] { action = [share] { return Status(*share); }; });
}

}  // namespace ZorvSnapUsage
