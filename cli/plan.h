// What comes free when snapshots go, and which must go for it.
#ifndef CLI_PLAN_H_
#define CLI_PLAN_H_

#include <stdint.h>

#include <functional>
#include <optional>
#include <vector>

#include "cli/size_table.h"
#include "cli/table_document.h"

namespace ZorvSnapUsage {

// What comes free with each of these, by their places in the table, in this order: asked of the
// file system when the table cannot say it. It may be of a later state than the table.
using AskInOrder = std::function<Forecast(const std::vector<uint32_t>& order)>;

struct Plan {
  unsigned long long generation = 0;  // the state that the steps are of
  std::vector<uint32_t> order;        // places in the table
  std::vector<FreedBytes> steps;      // what comes free with each
  // With a target:
  bool reached = true;  // else: there is no such plan, and `order` and `steps` are empty
  FreedBytes most;      // when all that may go do
  // With the fewest: fewer than this are not enough.
  std::optional<size_t> atLeast;
  // The table's choice is not enough in a later state; a table of that state has another one.
  bool overtaken = false;

  FreedBytes Together() const { return SumOf(steps); }
};

// The deletion of these, in this order.
Plan PlanDeletion(const SizeTable& table, const std::vector<uint32_t>& order,
                  const AskInOrder& ask);

// As many of `candidates`, in their order, as it takes until `target` bytes come free.
Plan PlanInOrder(const SizeTable& table, const std::vector<uint32_t>& candidates,
                 unsigned long long target, const AskInOrder& ask);

// As few of `candidates`, which are in the order of the table, as free `target` bytes: never more
// than in their order. `tick` is called many times a second during the search; it may throw, which
// ends it.
Plan PlanFewest(const SizeTable& table, const std::vector<uint32_t>& candidates,
                unsigned long long target, const AskInOrder& ask,
                const std::function<void()>& tick);

}  // namespace ZorvSnapUsage

#endif  // CLI_PLAN_H_
