// Which snapshots a plan is about, as the command line says it.
#ifndef CLI_PLAN_REQUEST_H_
#define CLI_PLAN_REQUEST_H_

#include <stdint.h>
#include <time.h>

#include <optional>
#include <string>
#include <vector>

#include "cli/retention.h"
#include "cli/share.h"

namespace ZorvSnapUsage {

// The words of the command line; empty: not given.
struct PlanWords {
  std::string share;
  std::vector<std::string> deletions;  // each A,B,C or A%B
  std::string olderThan;
  std::string until;
  std::string policy;
  std::string free;
  bool fewest = false;
  std::optional<unsigned> keepLast;
  std::vector<std::string> keep;
};

// What they mean.
struct PlanRequest {
  std::string share;
  std::vector<std::string> deletions;
  std::optional<time_t> last;  // snapshots of this time or earlier go
  std::optional<RetentionPolicy> policy;
  unsigned long long target = 0;  // bytes that are to come free; 0: not asked for
  bool fewest = false;
  unsigned keepLast = 0;
  std::vector<std::string> keep;
};

// Gives up with kWrongUsage when words contradict each other or make no sense. Ages count from
// `now`.
PlanRequest ReadPlanWords(const PlanWords& words, time_t now);

// The places of the snapshots that are to go, in the order in which they are: as named, else the
// oldest first. With a target: those that may go. Snapshots without a time go when they are named
// only. Gives up when a name is unknown, or when there are none.
std::vector<uint32_t> SelectForPlan(const PlanRequest& request,
                                    const std::vector<Snapshot>& snapshots);

}  // namespace ZorvSnapUsage

#endif  // CLI_PLAN_REQUEST_H_
