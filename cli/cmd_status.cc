// zorv-snapusage status: what is recorded of a share's latest calculation.
#include <fmt/format.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/begin_work.h"
#include "cli/calculation.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/options.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "cli/units.h"

namespace ZorvSnapUsage {
namespace {

void PrintLine(const char* label, const std::string& text) {
  fmt::print("{:<16} {}\n", fmt::format("{}:", label), text);
}

// What does not fit the clock: status records carry local times without a zone.
void PrintClock(const std::string& share, bool timesFit) {
  if (const std::optional<time_t> claimed = ClaimAheadOfClock(share))
    PrintLine("clock", fmt::format("was set back after the calculation was asked for, at {}",
                                   TimeForPeople(*claimed)));
  else if (!timesFit)
    PrintLine("clock", "was set back, as at the end of summer time, or was of another time zone");
}

void PrintTimes(const std::string& share, const Calculation& calculation) {
  const std::optional<time_t>& started = calculation.started;
  const std::optional<time_t>& ended = calculation.ended;
  const time_t now = time(nullptr);
  const bool startsLater = started && *started > now;
  const bool endsEarlier = started && ended && *ended < *started;
  const bool endsLater = ended && *ended > now;
  if (started)
    PrintLine("started", TimeForPeople(*started) + (startsLater ? " (later than now)" : ""));
  if (ended)
    PrintLine("ended", TimeForPeople(*ended) + (endsEarlier ? " (before it started)"
                                                : endsLater ? " (later than now)"
                                                            : ""));
  PrintClock(share, !startsLater && !endsEarlier && !endsLater);
}

void PrintProgress(const Calculation& calculation) {
  if (calculation.processedBytes)
    PrintLine("read", BytesText(*calculation.processedBytes, Units::kIec));
  if (calculation.exclusiveBytes)
    PrintLine("exclusive", BytesText(*calculation.exclusiveBytes, Units::kIec));
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
  PrintTimes(share, calculation);
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
