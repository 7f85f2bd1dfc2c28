// zorv-snapusage shares: the shares that there are, and what is known of each.
#include <fmt/format.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "cli/begin_work.h"
#include "cli/calculation.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/file_system.h"
#include "cli/json_output.h"
#include "cli/options.h"
#include "cli/result_generation.h"
#include "cli/results.h"
#include "cli/settled.h"
#include "cli/share.h"
#include "cli/standard_streams.h"
#include "cli/state_cell.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

constexpr int kJsonVersion = 1;

const Columns kColumns = {{"volume", "VOLUME", Column::Side::kLeft},
                          {"snapshots", "SNAPSHOTS"},
                          {"measured", "MEASURED"},
                          {"calculated", "CALCULATED"},
                          {"age", "AGE"},
                          {"generation", "GENERATION"},
                          {"generation_now", ""},
                          {"state", "STATE", Column::Side::kLeft},
                          {"activity", ""},
                          {"source", ""},
                          {"place", ""},
                          {"path", ""},
                          {"name", "SHARE"}};

// What is known of one share; empty cells of what is not.
struct Facts {
  std::optional<ShareOrigin> place;
  std::optional<unsigned long long> snapshots;
  std::optional<unsigned long long> generationNow;
  std::optional<Result> result;
  std::optional<unsigned long long> generation;  // of the result
  std::optional<Calculation> latest;
  Activity activity = Activity::kNone;
};

std::optional<unsigned long long> GenerationNow(const std::optional<ShareOrigin>& place) {
  const auto state = place ? StateOfFileSystem(place->path) : std::nullopt;
  return state ? std::optional(state->generation) : std::nullopt;
}

// One that cannot be looked at is said, and keeps no other from being listed.
Facts FactsOf(const std::string& share, int& status) {
  Facts facts;
  try {
    RequireShare(share);
    facts.place = FindPlace(share);
    facts.generationNow = GenerationNow(facts.place);
    facts.snapshots = SnapshotsOf(share).size();
    BeginWorkOn(share);
    facts.result = SettledResult(share);
    if (facts.result) facts.generation = GenerationOf(share, *facts.result);
    if (const std::optional<std::string> taskID = TaskOf(share))
      facts.latest = ReadCalculation(share, *taskID);
    if (facts.latest) facts.activity = ActivityOf(share, *facts.latest);
  } catch (const Failure& failure) {
    Say(failure.what());
    if (status == kOk) status = failure.Status();
  }
  return facts;
}

std::optional<long> AgeOf(const std::optional<Result>& result, time_t now) {
  if (!result || result->stored.seconds > now) return std::nullopt;
  return now - result->stored.seconds;
}

std::vector<Cell> LineOf(const std::string& share, const Facts& facts, time_t now) {
  const ShareOrigin place = facts.place.value_or(ShareOrigin());
  const std::optional<Result>& result = facts.result;
  return {Cell::Text(place.volume),
          Cell::Number(facts.snapshots),
          Cell::Number(result ? std::optional(result->subvolumeIDs.size()) : std::nullopt),
          Cell::Time(result ? std::optional(result->stored.seconds) : std::nullopt),
          Cell::Span(AgeOf(result, now)),
          Cell::Number(facts.generation),
          Cell::Number(facts.generationNow),
          StateCell(facts.latest, facts.activity),
          Cell::Text(facts.latest ? WordOf(facts.activity) : ""),
          Cell::Text(place.source),
          Cell::Text(place.place),
          Cell::Text(place.path),
          Cell::Text(share)};
}

int Shares(const OutputFormat& format) {
  BeginWork();
  const ShareNames shares = AllShares();
  int status = shares.status;
  const time_t now = time(nullptr);
  Table table(kColumns);
  for (const std::string& share : shares.names)
    table.Add(LineOf(share, FactsOf(share, status), now));
  if (format.json) {
    Json::Value document = NewDocument(kJsonVersion);
    SetTime(document, "time", now);
    document["complete"] = status == kOk;
    document["shares"] = table.Rows(format);
    PrintJson(document);
  } else {
    ToStandardOutput(table.Text(format));
  }
  return status;
}

}  // namespace

void AddShares(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("shares", "List the shares, and how old the last result of each is");
  const auto format = std::make_shared<OutputFormat>();
  AddOutputFormat(*command, *format, kColumns);
  command->footer(
      "Measured: the snapshots in the last good result. State: of the last calculation.\n"
      "Example: zorv-snapusage shares --sort=-age");
  command->callback([format, &action] { action = [format] { return Shares(*format); }; });
}

}  // namespace ZorvSnapUsage
