#include "cli/state_cell.h"

namespace ZorvSnapUsage {
namespace {

using namespace ZorvBtrfsUsage;

Tone ToneOf(const Calculation& calculation) {
  if (calculation.state == CAL_TASK_STATUS_DONE) return Tone::kGood;
  return calculation.state == CAL_TASK_STATUS_FAIL ? Tone::kBad : Tone::kPlain;
}

}  // namespace

Cell StateCell(const std::optional<Calculation>& calculation, Activity activity) {
  if (!calculation) return Cell::Text("");
  if (activity == Activity::kDied) return Cell::Text(calculation->stateWord, Tone::kBad, "gone");
  return Cell::Text(calculation->stateWord, ToneOf(*calculation));
}

}  // namespace ZorvSnapUsage
