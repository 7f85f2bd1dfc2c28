// A plan as it is shown.
#ifndef CLI_PLAN_REPORT_H_
#define CLI_PLAN_REPORT_H_

#include <optional>
#include <vector>

#include "cli/output_format.h"
#include "cli/plan.h"
#include "cli/plan_request.h"
#include "cli/share.h"
#include "cli/table.h"
#include "cli/table_file.h"

namespace ZorvSnapUsage {

struct PlanReport {
  const PlanRequest& request;
  const Plan& plan;
  const KeptTable& table;
  const std::vector<Snapshot>& snapshots;          // in the order of the table
  std::optional<unsigned long long> beingDeleted;  // other subvolumes; nothing: it is not known
};

// The columns of a printed plan.
const Columns& PlanColumns();

// Prints to standard output.
void Print(const PlanReport& report, const OutputFormat& format);

}  // namespace ZorvSnapUsage

#endif  // CLI_PLAN_REPORT_H_
