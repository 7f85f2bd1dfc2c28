#include "cli/retention.h"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <tuple>

namespace ZorvSnapUsage {
namespace {

constexpr std::string_view kLetters = "hdwmy";  // in the order of Period
constexpr size_t kMostDigits = 5;

// Longer than any calendar here goes back; years of more are beyond what std::chrono::year counts.
constexpr unsigned kMostYears = 9999;

// Takes one "90d" from the beginning of the text.
std::optional<PeriodCount> TakePeriods(std::string_view& text) {
  const size_t digits = text.find_first_not_of("0123456789");
  if (digits == 0 || digits == std::string_view::npos || digits > kMostDigits) return std::nullopt;
  const size_t letter = kLetters.find(text[digits]);
  if (letter == std::string_view::npos) return std::nullopt;
  const auto count = static_cast<unsigned>(std::stoul(std::string(text.substr(0, digits))));
  if (count == 0) return std::nullopt;
  text.remove_prefix(digits + 1);
  return PeriodCount{static_cast<Period>(letter), count};
}

tm LocalFieldsOf(time_t t) {
  tm fields{};
  (void)localtime_r(&t, &fields);
  return fields;
}

std::chrono::year_month_day DateOf(const tm& fields) {
  using namespace std::chrono;
  return year(fields.tm_year + 1900) / month(static_cast<unsigned>(fields.tm_mon + 1)) /
         day(static_cast<unsigned>(fields.tm_mday));
}

// So many months earlier; the last day of that month when it is shorter.
std::chrono::year_month_day MonthsBefore(std::chrono::year_month_day date, unsigned count) {
  using namespace std::chrono;
  const year_month_day before = date - months(static_cast<int>(count));
  return before.ok() ? before : before.year() / before.month() / last;
}

std::chrono::year_month_day DateBefore(std::chrono::year_month_day date, const PeriodCount& age) {
  using namespace std::chrono;
  switch (age.period) {
    case Period::kMonth:
      return MonthsBefore(date, age.count);
    case Period::kYear:
      return MonthsBefore(date, 12 * std::min(age.count, kMostYears));
    case Period::kWeek:
      return sys_days(date) - weeks(age.count);
    default:
      return sys_days(date) - days(age.count);
  }
}

// What tells one period from the next; the second number tells the two hours apart that have one
// name where clocks are set back.
std::tuple<long, long> Bucket(Period period, time_t t) {
  using namespace std::chrono;
  const tm fields = LocalFieldsOf(t);
  const long day = sys_days(DateOf(fields)).time_since_epoch().count();
  const long sinceMonday = (fields.tm_wday + 6) % 7;
  switch (period) {
    case Period::kHour:
      return {day * 24 + fields.tm_hour, fields.tm_gmtoff};
    case Period::kDay:
      return {day, 0};
    case Period::kWeek:
      return {day - sinceMonday, 0};
    case Period::kMonth:
      return {fields.tm_year * 12L + fields.tm_mon, 0};
    default:
      return {fields.tm_year, 0};
  }
}

void Keep(const PeriodCount& rule, const std::vector<time_t>& times, std::vector<bool>& kept) {
  unsigned left = rule.count;
  std::optional<std::tuple<long, long>> last;
  for (size_t i = times.size(); i-- > 0;) {
    const std::tuple<long, long> bucket = Bucket(rule.period, times[i]);
    if (last == bucket) continue;
    if (left-- == 0) return;
    kept[i] = true;
    last = bucket;
  }
}

}  // namespace

std::optional<PeriodCount> ParsePeriods(const std::string& text) {
  std::string_view rest = text;
  const std::optional<PeriodCount> periods = TakePeriods(rest);
  return rest.empty() ? periods : std::nullopt;
}

time_t TimeBefore(time_t now, const PeriodCount& age) {
  constexpr time_t kHourLength = 3600;
  if (age.period == Period::kHour)
    return std::max<time_t>(now - kHourLength * static_cast<time_t>(age.count), 0);
  tm fields = LocalFieldsOf(now);
  const std::chrono::year_month_day date = DateBefore(DateOf(fields), age);
  if (date < std::chrono::year(1970) / 1 / 1) return 0;
  fields.tm_year = static_cast<int>(date.year()) - 1900;
  fields.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
  fields.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
  fields.tm_isdst = -1;
  return std::max<time_t>(mktime(&fields), 0);
}

std::optional<RetentionPolicy> ParsePolicy(const std::string& text) {
  RetentionPolicy policy;
  std::string_view rest = text;
  do {
    const std::optional<PeriodCount> rule = TakePeriods(rest);
    if (!rule) return std::nullopt;
    const auto isSame = [&](const PeriodCount& other) { return other.period == rule->period; };
    if (std::any_of(policy.begin(), policy.end(), isSame)) return std::nullopt;
    policy.push_back(*rule);
  } while (!rest.empty());
  return policy;
}

std::vector<bool> KeptBy(const RetentionPolicy& policy, const std::vector<time_t>& times) {
  std::vector<bool> kept(times.size());
  for (const PeriodCount& rule : policy) Keep(rule, times, kept);
  return kept;
}

}  // namespace ZorvSnapUsage
