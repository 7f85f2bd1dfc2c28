#include "cli/time_text.h"

#include <fmt/format.h>

#include <algorithm>

namespace ZorvSnapUsage {
namespace {

struct Form {
  const char* format;  // of strptime(3)
  int lastHour;        // of the last second that the text means; -1: what the text says
  int lastMinute;
  int lastSecond;
};

constexpr Form kForms[] = {
    {"%Y.%m.%d-%H.%M.%S", -1, -1, -1}, {"%Y-%m-%d %H:%M:%S", -1, -1, -1},
    {"%Y-%m-%dT%H:%M:%S", -1, -1, -1}, {"%Y-%m-%d %H:%M", -1, -1, 59},
    {"%Y-%m-%dT%H:%M", -1, -1, 59},    {"%Y-%m-%d", 23, 59, 59},
};

// Whether both have the same day and the same time of day.
bool SameText(const tm& one, const tm& other) {
  return one.tm_mday == other.tm_mday && one.tm_mon == other.tm_mon &&
         one.tm_hour == other.tm_hour && one.tm_min == other.tm_min && one.tm_sec == other.tm_sec;
}

// Seconds since the epoch, when that is the very time the fields name: mktime turns
// the 31st of February into a day of March, and an hour that summer time skips into another.
std::optional<time_t> Exactly(const tm& fields) {
  tm normal = fields;
  normal.tm_isdst = -1;
  const time_t t = mktime(&normal);
  // Snapshot names have no time before the epoch, and -1 is how mktime says no.
  if (t < 0 || !SameText(normal, fields)) return std::nullopt;
  return t;
}

// The local fields of a time; nothing for one beyond the calendar.
std::optional<tm> LocalFields(time_t t) {
  tm fields{};
  if (localtime_r(&t, &fields) == nullptr) return std::nullopt;
  return fields;
}

// Where clocks are set back a text names two times: the earlier one or the later one, so that a
// range leaves nothing out. Which of them mktime gives depends on what it was asked before.
time_t AtBound(time_t t, const tm& text, TimeBound bound) {
  constexpr time_t kHalfHour = 1800;  // zones are set by half hours, and at most by two hours
  time_t atBound = t;
  for (int halves = -4; halves <= 4; ++halves) {
    const time_t other = t + halves * kHalfHour;
    const std::optional<tm> fields = LocalFields(other);
    if (!fields || !SameText(*fields, text)) continue;
    atBound =
        bound == TimeBound::kFirstSecond ? std::min(atBound, other) : std::max(atBound, other);
  }
  return atBound;
}

// The first second of a day. In some zones summer time begins at midnight, and the day at one.
std::optional<time_t> BeginningOf(tm day) {
  tm eve = day;
  eve.tm_mday -= 1;
  eve.tm_hour = 23;
  eve.tm_min = 59;
  eve.tm_sec = 59;
  eve.tm_isdst = -1;
  const time_t lastOfEve = mktime(&eve);
  if (lastOfEve < 0) return std::nullopt;
  const std::optional<tm> first = LocalFields(lastOfEve + 1);
  if (!first || first->tm_mday != day.tm_mday) return std::nullopt;
  return lastOfEve + 1;
}

}  // namespace

std::optional<time_t> ParseTime(const std::string& text, TimeBound bound) {
  for (const Form& form : kForms) {
    tm fields{};
    const char* end = strptime(text.c_str(), form.format, &fields);
    if (end == nullptr || *end != '\0') continue;
    if (bound == TimeBound::kLastSecond) {
      if (form.lastHour >= 0) fields.tm_hour = form.lastHour;
      if (form.lastMinute >= 0) fields.tm_min = form.lastMinute;
      if (form.lastSecond >= 0) fields.tm_sec = form.lastSecond;
    }
    if (const std::optional<time_t> t = Exactly(fields)) return AtBound(*t, fields, bound);
    const bool isDay = form.lastHour >= 0;
    return isDay && bound == TimeBound::kFirstSecond ? BeginningOf(fields) : std::nullopt;
  }
  return std::nullopt;
}

std::string TimeForPeople(time_t t) {
  const std::optional<tm> fields = LocalFields(t);
  char text[64];
  if (!fields) return "-";
  return std::string(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &*fields));
}

std::string TimeForPrograms(time_t t) {
  const std::optional<tm> fields = LocalFields(t);
  char text[64];
  if (!fields) return "-";
  std::string time(text, strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &*fields));
  // strftime writes +0800, where RFC 3339 has +08:00.
  return time.insert(time.size() - 2, ":");
}

}  // namespace ZorvSnapUsage
