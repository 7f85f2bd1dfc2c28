// The state of a calculation in a table.
#ifndef CLI_STATE_CELL_H_
#define CLI_STATE_CELL_H_

#include <optional>

#include "cli/calculation.h"
#include "cli/table.h"

namespace ZorvSnapUsage {

// The state as it is recorded, with a note where its process is gone; empty for no calculation.
Cell StateCell(const std::optional<Calculation>& calculation, Activity activity);

}  // namespace ZorvSnapUsage

#endif  // CLI_STATE_CELL_H_
