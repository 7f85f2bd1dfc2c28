#include "engine/table_lines.h"

#include <limits.h>

#include "engine/profile_bytes.h"

namespace ZorvEngine {
namespace {

// "data N metadata N"
std::string Held(const HeldBytes& bytes) {
  return "data " + std::to_string(bytes.data) + " metadata " + std::to_string(bytes.metadata);
}

bool GiveSet(const SizeTable& table, const SetRow& row, const LineSink& sink) {
  return GiveWithIds("set " + Held(SizeTable::Sum(row.bytes)) + " of", "set also of", table.ids,
                     row.members, sink);
}

// The line of a sum over several sets.
std::string SumLine(const SizeTable& table, const SetRow& row) {
  return "sets " + Held(SizeTable::Sum(row.bytes)) + " with last " +
         std::to_string(table.ids[row.members.back()]) + "\n";
}

}  // namespace

const char kIncompleteTable[] =
    "more sets than the memory for them holds: those beyond it are summed up by their last "
    "subvolume in the order asked; exclusive sizes, and what comes free in the order asked, are "
    "exact; a set of several holds at least what is said of it; for another order ask with "
    "--forecast, for all sets with more --table-memory";

bool GiveWithIds(std::string line, const std::string& also, const std::vector<uint64_t>& ids,
                 const std::vector<uint32_t>& members, const LineSink& sink) {
  for (const uint32_t member : members) {
    const std::string id = " " + std::to_string(ids[member]);
    if (line.size() + id.size() + 1 > PIPE_BUF) {
      if (!sink(line + "\n")) return false;
      line = also;
    }
    line += id;
  }
  return sink(line + "\n");
}

bool GiveForecastLines(const SizeTable& table, const std::vector<ForecastStep>& steps,
                       const LineSink& sink) {
  HeldBytes soFar;
  for (size_t i = 0; i < steps.size(); ++i) {
    const HeldBytes here = SizeTable::Sum(steps[i].bytes);
    soFar += here;
    if (!sink("forecast " + std::to_string(i + 1) + " " +
              std::to_string(table.ids[steps[i].subvolume]) + " " + Held(here) + " so far " +
              Held(soFar) + "\n"))
      return false;
  }
  if (!sink("forecast all " + Held(soFar) + "\n")) return false;
  for (const ProfileBytes& profile : ByProfile(table, SumOfSteps(table, steps)))
    if (!sink("forecast raw " + std::string(profile.profile) + " " + Held(profile.raw) + "\n"))
      return false;
  return true;
}

bool GiveTableLines(const SizeTable& table, const LineSink& sink) {
  for (const SetRow& row : table.rows)
    if (SizeTable::IsWorthSaying(row) &&
        !(row.complete ? GiveSet(table, row, sink) : sink(SumLine(table, row))))
      return false;
  return sink(table.Complete() ? "table complete\n"
                               : std::string("table incomplete: ") + kIncompleteTable + "\n");
}

}  // namespace ZorvEngine
