// zorv-snapusage status: what is recorded of the latest calculations.
#include <fmt/format.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/begin_work.h"
#include "cli/calculation.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/follow.h"
#include "cli/interrupt.h"
#include "cli/json_output.h"
#include "cli/options.h"
#include "cli/result_generation.h"
#include "cli/results.h"
#include "cli/share_choice.h"
#include "cli/standard_streams.h"
#include "cli/state_cell.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "cli/units.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

constexpr int kJsonVersion = 1;

const Columns kColumns = {{"state", "STATE", Column::Side::kLeft},
                          {"activity", ""},
                          {"task_id", ""},
                          {"process", ""},
                          {"started", "STARTED"},
                          {"ended", "ENDED"},
                          {"read", "READ"},
                          {"exclusive", "EXCLUSIVE"},
                          {"generation", "GENERATION"},
                          {"error_code", ""},
                          {"error", ""},
                          {"command", ""},
                          {"name", "SHARE"}};

struct StatusOptions {
  std::vector<std::string> shares;  // none: all that are recorded
  OutputFormat format;
  bool follow = false;
};

// What is known of one share's calculation.
struct Facts {
  std::string taskID;
  Calculation calculation;
  Activity activity = Activity::kNone;
  std::optional<unsigned long long> generation;  // of its result
};

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

void PrintActivity(const std::string& share, const Facts& facts) {
  switch (facts.activity) {
    case Activity::kRunning:
      PrintLine("process", std::to_string(*facts.calculation.pid));
      break;
    case Activity::kDied:
      PrintLine("process", "gone without a result; remove the record with: zorv-snapusage clean " +
                               ShareWord(share));
      break;
    default:
      break;
  }
}

// Everything that is known of one share, a line each.
void PrintOne(const std::string& share, const Facts& facts) {
  PrintLine("share", Escaped(share));
  PrintLine("state", facts.calculation.stateWord);
  PrintLine("task", Escaped(facts.taskID));
  PrintActivity(share, facts);
  PrintTimes(share, facts.calculation);
  PrintProgress(facts.calculation);
  if (facts.generation) PrintLine("generation", std::to_string(*facts.generation));
  PrintError(facts.calculation);
}

std::vector<Cell> LineOf(const std::string& share, const Facts& facts) {
  const Calculation& calculation = facts.calculation;
  const bool running = facts.activity == Activity::kRunning;
  return {
      StateCell(calculation, facts.activity),
      Cell::Text(WordOf(facts.activity)),
      Cell::Text(facts.taskID),
      Cell::Number(running ? std::optional<unsigned long long>(*calculation.pid) : std::nullopt),
      Cell::Time(calculation.started),
      Cell::Time(calculation.ended),
      Cell::Bytes(calculation.processedBytes),
      Cell::Bytes(calculation.exclusiveBytes),
      Cell::Number(facts.generation),
      Cell::Number(calculation.errorCode),
      Cell::Text(calculation.errorMessage),
      Cell::Text(calculation.command),
      Cell::Text(share)};
}

void PrintSeveral(const Table& table, const OutputFormat& format, bool complete) {
  if (!format.json) {
    ToStandardOutput(table.Text(format));
    return;
  }
  Json::Value document = NewDocument(kJsonVersion);
  SetTime(document, "time", time(nullptr));
  document["complete"] = complete;
  document["shares"] = table.Rows(format);
  PrintJson(document);
}

Facts FactsOf(const std::string& share, bool follow) {
  BeginWorkOn(share);
  Facts facts;
  facts.taskID = RequireTask(share);
  facts.calculation = RequireCalculation(share, facts.taskID);
  if (follow && IsUnderWay(share, facts.calculation))
    facts.calculation = FollowToEnd(share, facts.taskID, /*quiet=*/false);
  facts.activity = ActivityOf(share, facts.calculation);
  if (const std::optional<Result> result = ResultOfTask(share, facts.taskID))
    facts.generation = GenerationOf(share, *result);
  return facts;
}

int Status(const StatusOptions& options) {
  BeginWork();
  const Interrupt interrupt;
  const ShareChoice choice = {options.shares, /*all=*/options.shares.empty()};
  const std::vector<std::string> shares = ChosenShares(choice, RecordedShares);
  const OutputFormat& format = options.format;
  const bool asTable = choice.Several() || format.json || format.plain;
  Table table(kColumns);
  const int status = ForEachShare(choice, shares, [&](const std::string& share) {
    const Facts facts = FactsOf(share, options.follow);
    if (asTable)
      table.Add(LineOf(share, facts));
    else
      PrintOne(share, facts);
  });
  if (asTable) PrintSeveral(table, format, status == kOk);
  return status;
}

}  // namespace

void AddStatus(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("status", "Show the state of the latest calculations");
  const auto options = std::make_shared<StatusOptions>();
  command->add_option("SHARE", options->shares, "Names of shares (default: all that are recorded)")
      ->type_name("");
  command->add_flag("--follow,-f", options->follow, "Show progress until the end first");
  AddOutputFormat(*command, options->format, kColumns);
  command->footer(
      "States: ready, process, done, stop, fail. Ctrl-C leaves, and nothing is stopped.\n"
      "Example: zorv-snapusage status photos --follow");
  command->callback([options, &action] { action = [options] { return Status(*options); }; });
}

}  // namespace ZorvSnapUsage
