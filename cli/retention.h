// Rules by which snapshots are kept, or are too old. Hours, days, weeks, months and years are those
// of the local calendar; weeks begin on Monday.
#ifndef CLI_RETENTION_H_
#define CLI_RETENTION_H_

#include <time.h>

#include <optional>
#include <string>
#include <vector>

namespace ZorvSnapUsage {

enum class Period { kHour, kDay, kWeek, kMonth, kYear };

// So many periods: 90d.
struct PeriodCount {
  Period period;
  unsigned count;
  friend bool operator==(const PeriodCount&, const PeriodCount&) = default;
};

// Reads 12h, 90d, 4w, 6m or 2y. Nothing: another form, none at all, or more than 99,999.
std::optional<PeriodCount> ParsePeriods(const std::string& text);

// The moment so long before `now`: hours of 3600 seconds; else the same time of day so many days,
// weeks, months or years earlier, on the last day of a month that has no such day. Not before the
// epoch.
time_t TimeBefore(time_t now, const PeriodCount& age);

// For each of the last so many hours, days, ... that have a snapshot, the newest one of it is kept.
// The rules of a policy do not see one another; what one of them keeps is kept.
using RetentionPolicy = std::vector<PeriodCount>;

// Reads 24h7d4w12m: each period once at most, in any order. Nothing: another form.
std::optional<RetentionPolicy> ParsePolicy(const std::string& text);

// Which of these times, the oldest first, the policy keeps.
std::vector<bool> KeptBy(const RetentionPolicy& policy, const std::vector<time_t>& times);

}  // namespace ZorvSnapUsage

#endif  // CLI_RETENTION_H_
