#include "cli/plan_request.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "cli/byte_count.h"
#include "cli/failure.h"
#include "cli/snapshot_choice.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

using Places = std::vector<uint32_t>;

Failure WrongUsage(const std::string& what, const std::string& next) {
  return Failure(kWrongUsage, what, next);
}

// Exactly one question is asked; --keep-last is one when it stands alone.
void RequireOneQuestion(const PlanWords& words) {
  std::vector<const char*> asked;
  if (!words.deletions.empty()) asked.push_back("--delete");
  if (!words.olderThan.empty()) asked.push_back("--older-than");
  if (!words.until.empty()) asked.push_back("--until");
  if (!words.policy.empty()) asked.push_back("--policy");
  if (!words.free.empty()) asked.push_back("--free");
  if (asked.size() > 1)
    throw WrongUsage(fmt::format("{} and {} cannot be asked for together", asked[0], asked[1]),
                     "leave one of them out");
  if (asked.empty() && !words.keepLast)
    throw WrongUsage("what is to be deleted is not said",
                     "give --delete, --older-than, --until, --keep-last, --policy or --free");
}

void RequireNoContradiction(const PlanWords& words) {
  RequireOneQuestion(words);
  if (words.fewest && words.free.empty())
    throw WrongUsage("--fewest goes with --free", "say how much is to come free");
  if (!words.deletions.empty() && (words.keepLast || !words.keep.empty()))
    throw WrongUsage("--delete names what goes, and nothing is to be kept from it",
                     "leave out --keep and --keep-last");
}

time_t RequireAge(const std::string& text, time_t now) {
  if (const std::optional<PeriodCount> age = ParsePeriods(text)) return TimeBefore(now, *age) - 1;
  throw WrongUsage(fmt::format("{} is no age", Quoted(text)),
                   "write hours, days, weeks, months or years as 36h, 90d, 8w, 6m or 2y");
}

time_t RequireTime(const std::string& text) {
  if (const std::optional<time_t> t = ParseTime(text, TimeBound::kLastSecond)) return *t;
  throw WrongUsage(fmt::format("{} is no time", Quoted(text)),
                   "write 2024-03-05, \"2024-03-05 17:04\" or 2024.03.05-17.04.09");
}

RetentionPolicy RequirePolicy(const std::string& text) {
  if (const std::optional<RetentionPolicy> policy = ParsePolicy(text)) return *policy;
  throw WrongUsage(fmt::format("{} is no policy", Quoted(text)),
                   "write how many hours, days, weeks, months and years keep one, as 24h7d4w12m2y");
}

unsigned long long RequireByteCount(const std::string& text) {
  const std::optional<unsigned long long> bytes = ParseByteCount(text);
  if (bytes && *bytes > 0) return *bytes;
  throw WrongUsage(fmt::format("{} is no amount of bytes", Quoted(text)),
                   "write it as 200G, 1.5T, 500MB or 1073741824");
}

// Looks snapshots up by their names.
class Names {
 public:
  Names(const std::string& share, const std::vector<Snapshot>& snapshots)
      : share_(share), snapshots_(snapshots) {}

  bool Has(const std::string& name) const {
    return FindSnapshot(share_, snapshots_, name).has_value();
  }

  uint32_t Require(const std::string& name) const {
    return static_cast<uint32_t>(RequireSnapshot(share_, snapshots_, name));
  }

 private:
  const std::string& share_;
  const std::vector<Snapshot>& snapshots_;
};

// Those that have a time, in its order; the others stand behind them.
Places WithTime(const std::vector<Snapshot>& snapshots) {
  Places places;
  for (uint32_t place = 0; place < snapshots.size(); ++place)
    if (snapshots[place].time) places.push_back(place);
  return places;
}

// The place of one end of a range, which must have a time.
uint32_t EndOfRange(const std::string& name, const Names& names,
                    const std::vector<Snapshot>& snapshots) {
  const uint32_t place = names.Require(name);
  if (snapshots[place].time) return place;
  throw WrongUsage(fmt::format("snapshot {} has no time, and is in no range", Quoted(name)),
                   "name it by itself: " + OptionWords("--delete", name));
}

// A%B: both ends and what lies between them in time.
Places Range(const std::string& text, size_t percent, const Names& names,
             const std::vector<Snapshot>& snapshots) {
  const std::string from = text.substr(0, percent), to = text.substr(percent + 1);
  Places places = WithTime(snapshots);
  if (places.empty()) return {};
  const uint32_t first = from.empty() ? places.front() : EndOfRange(from, names, snapshots);
  const uint32_t last = to.empty() ? places.back() : EndOfRange(to, names, snapshots);
  if (first > last)
    throw WrongUsage(fmt::format("the range {} ends before it begins", Quoted(text)),
                     "exchange its ends");
  std::erase_if(places, [&](uint32_t place) { return place < first || place > last; });
  return places;
}

// A name, names with commas between them, or a range; a name that has such a character itself is
// meant when there is one.
Places PlacesOfWord(const std::string& text, const Names& names,
                    const std::vector<Snapshot>& snapshots) {
  if (names.Has(text)) return {names.Require(text)};
  if (const size_t percent = text.find('%'); percent != std::string::npos)
    return Range(text, percent, names, snapshots);
  Places places;
  for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = text.find(',', begin);
    places.push_back(names.Require(text.substr(begin, end - begin)));
  }
  return places;
}

// Each once, at its first place in the order.
Places Deletions(const PlanRequest& request, const Names& names,
                 const std::vector<Snapshot>& snapshots) {
  Places places;
  std::set<uint32_t> known;
  for (const std::string& text : request.deletions)
    for (const uint32_t place : PlacesOfWord(text, names, snapshots))
      if (known.insert(place).second) places.push_back(place);
  return places;
}

// What the policy keeps of the places, which have times and are in their order.
std::set<uint32_t> KeptByPolicy(const RetentionPolicy& policy, const Places& places,
                                const std::vector<Snapshot>& snapshots) {
  std::vector<time_t> times;
  for (const uint32_t place : places) times.push_back(*snapshots[place].time);
  const std::vector<bool> keeps = KeptBy(policy, times);
  std::set<uint32_t> kept;
  for (size_t i = 0; i < places.size(); ++i)
    if (keeps[i]) kept.insert(places[i]);
  return kept;
}

Places ByRule(const PlanRequest& request, const Names& names,
              const std::vector<Snapshot>& snapshots) {
  Places places = WithTime(snapshots);
  std::set<uint32_t> kept;
  if (request.policy) kept = KeptByPolicy(*request.policy, places, snapshots);
  for (const std::string& name : request.keep) kept.insert(names.Require(name));
  const size_t newest = std::min<size_t>(request.keepLast, places.size());
  kept.insert(places.end() - static_cast<ptrdiff_t>(newest), places.end());
  std::erase_if(places, [&](uint32_t place) {
    return kept.count(place) != 0 || (request.last && *snapshots[place].time > *request.last);
  });
  return places;
}

}  // namespace

PlanRequest ReadPlanWords(const PlanWords& words, time_t now) {
  RequireNoContradiction(words);
  PlanRequest request;
  request.share = words.share;
  request.deletions = words.deletions;
  if (!words.olderThan.empty()) request.last = RequireAge(words.olderThan, now);
  if (!words.until.empty()) request.last = RequireTime(words.until);
  if (!words.policy.empty()) request.policy = RequirePolicy(words.policy);
  if (!words.free.empty()) request.target = RequireByteCount(words.free);
  request.fewest = words.fewest;
  request.keepLast = words.keepLast.value_or(0);
  request.keep = words.keep;
  return request;
}

std::vector<uint32_t> SelectForPlan(const PlanRequest& request,
                                    const std::vector<Snapshot>& snapshots) {
  const Names names(request.share, snapshots);
  Places places = request.deletions.empty() ? ByRule(request, names, snapshots)
                                            : Deletions(request, names, snapshots);
  if (!places.empty()) return places;
  throw Failure(kNoSnapshots,
                fmt::format("no snapshot of share {} is to go by that", Quoted(request.share)),
                "ask for others; snapshots whose names carry no time go when they are named only");
}

}  // namespace ZorvSnapUsage
