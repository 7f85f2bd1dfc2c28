// zorv-snapusage plan: what comes free when snapshots go, and which must go to free so much.
#include <fmt/format.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <utility>

#include "cli/begin_work.h"
#include "cli/commands.h"
#include "cli/deletions.h"
#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/options.h"
#include "cli/patience.h"
#include "cli/plan.h"
#include "cli/plan_report.h"
#include "cli/plan_request.h"
#include "cli/share_place.h"
#include "cli/table_source.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

struct PlanOptions {
  PlanWords words;
  OutputFormat format;
};

std::vector<Snapshot> RequireSnapshots(const std::string& share) {
  RequireShare(share);
  std::vector<Snapshot> snapshots = SnapshotsOf(share);
  if (!snapshots.empty()) return snapshots;
  throw Failure(kNoSnapshots, fmt::format("share {} has no snapshots", Quoted(share)),
                NextWithoutSnapshots(share));
}

// How often a plan is made before it is given up, because each was overtaken by a later state.
constexpr int kMostPlans = 3;

// What comes free in an order that the table has no answer for.
AskInOrder AskTheEngine(const std::string& share, const std::vector<Snapshot>& snapshots) {
  return [&](const std::vector<uint32_t>& order) {
    std::vector<unsigned long long> ids;
    for (const uint32_t place : order) ids.push_back(snapshots[place].subvolumeID);
    return AskForForecast(PlaceOfShare(share).path, ids);
  };
}

// The search for the fewest tells that it goes on, and ends with Ctrl-C.
std::function<void()> SearchTick() {
  const auto patience = std::make_shared<Patience>("looking for the fewest snapshots");
  return [patience] {
    Interrupt::RequireNone();
    patience->Tick();
  };
}

Plan PlanBy(const SizeTable& table, const PlanRequest& request, const std::vector<uint32_t>& places,
            const AskInOrder& ask) {
  if (request.target == 0) return PlanDeletion(table, places, ask);
  return request.fewest ? PlanFewest(table, places, request.target, ask, SearchTick())
                        : PlanInOrder(table, places, request.target, ask);
}

// A plan, and the table that it is by, with the state of the plan.
struct MadePlan {
  KeptTable table;
  Plan plan;
};

MadePlan MakePlan(const PlanRequest& request, const std::vector<Snapshot>& snapshots,
                  const std::vector<uint32_t>& places) {
  for (int made = 0; made < kMostPlans; ++made) {
    KeptTable table = TableOfNow(request.share, snapshots);
    Plan plan = PlanBy(table.table, request, places, AskTheEngine(request.share, snapshots));
    if (plan.overtaken) continue;
    if (plan.generation != table.table.generation) {
      table.table.generation = plan.generation;
      table.taken = Moment::Now();
    }
    return {std::move(table), std::move(plan)};
  }
  throw Failure(kCalculationFailed,
                fmt::format("what the snapshots of share {} hold has changed each time that a plan "
                            "was made",
                            Quoted(request.share)),
                "try again when the file system is quieter");
}

// The texts of two counts of bytes that are not equal; to the byte where else they would look so.
std::pair<std::string, std::string> DifferentTexts(unsigned long long one,
                                                   unsigned long long other) {
  std::pair<std::string, std::string> texts = {BytesText(one, Units::kIec),
                                               BytesText(other, Units::kIec)};
  if (texts.first == texts.second) texts = {CountOf(one, "byte"), CountOf(other, "byte")};
  return texts;
}

void RequireReached(const PlanRequest& request, const Plan& plan, size_t candidates) {
  if (plan.reached) return;
  const bool one = candidates == 1;
  const auto [most, target] = DifferentTexts(plan.most.Total(), request.target);
  throw Failure(kTargetOutOfReach,
                fmt::format("{} of share {} that may go {} {}{}, not {}",
                            AllOf(candidates, "snapshot"), Quoted(request.share),
                            one ? "frees" : "free", most, one ? "" : " together", target),
                "ask for less, or keep fewer");
}

int PlanDeletions(const PlanOptions& options) {
  const PlanRequest request = ReadPlanWords(options.words, time(nullptr));
  const Interrupt interrupt;
  BeginWorkOn(request.share);
  const std::vector<Snapshot> snapshots = RequireSnapshots(request.share);
  const std::vector<uint32_t> places = SelectForPlan(request, snapshots);
  const std::optional<unsigned long long> beingDeleted = TellOfDeletions(request.share);
  const auto [table, plan] = MakePlan(request, snapshots, places);
  if (options.format.json || plan.reached)
    Print({request, plan, table, snapshots, LookAgainForDeletions(request.share, beingDeleted)},
          options.format);
  RequireReached(request, plan, places.size());
  return kOk;
}

// A text that is empty, by a variable that was never set for one, would be taken for no option.
std::string RefuseEmpty(const std::string& text) {
  return text.empty() ? "a value is expected" : "";
}

void AddQuestions(CLI::App& command, PlanWords& words) {
  command.add_option("--delete", words.deletions, "These, in this order; A%B: from A to B")
      ->type_name("A,B,C");
  command.add_option("--older-than", words.olderThan, "Those that are older: 36h 90d 8w 6m 2y")
      ->type_name("AGE")
      ->check(RefuseEmpty);
  command.add_option("--until", words.until, "Those of this time or earlier")
      ->type_name("TIME")
      ->check(RefuseEmpty);
  command.add_option("--policy", words.policy, "Those that a policy does not keep: 24h7d4w12m2y")
      ->type_name("POLICY")
      ->check(RefuseEmpty);
  command.add_option("--free", words.free, "As many as free so much, the oldest first: 200G")
      ->type_name("SIZE")
      ->check(RefuseEmpty);
  command.add_flag("--fewest", words.fewest, "With --free: as few as possible instead");
  command.add_option("--keep-last", words.keepLast, "Never the last N; alone: all others")
      ->type_name("N")
      ->check(CLI::Range(1u, 1000000u).description(""));
  command.add_option("--keep", words.keep, "Never this one; may be given again")
      ->type_name("NAME")
      ->allow_extra_args(false);
}

}  // namespace

void AddPlan(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("plan", "What comes free if snapshots go; deletes nothing");
  const auto options = std::make_shared<PlanOptions>();
  AddShareArgument(*command, options->words.share);
  AddQuestions(*command, options->words);
  AddOutputFormat(*command, options->format, PlanColumns());
  command->footer("Example: zorv-snapusage plan photos --free 200G --keep-last 7");
  command->callback([options, &action] { action = [options] { return PlanDeletions(*options); }; });
}

}  // namespace ZorvSnapUsage
