#include "cli/time_text.h"

#include <fmt/format.h>

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

// Seconds since the epoch, when that is the very time the fields name: mktime turns
// the 31st of February into a day of March, and an hour that summer time skips into another.
std::optional<time_t> Exactly(const tm& fields) {
  tm normal = fields;
  normal.tm_isdst = -1;
  const time_t t = mktime(&normal);
  const bool same = normal.tm_mday == fields.tm_mday && normal.tm_mon == fields.tm_mon &&
                    normal.tm_hour == fields.tm_hour && normal.tm_min == fields.tm_min &&
                    normal.tm_sec == fields.tm_sec;
  // Snapshot names have no time before the epoch, and -1 is how mktime says no.
  if (t < 0 || !same) return std::nullopt;
  return t;
}

// The local fields of a time; nothing for one beyond the calendar.
std::optional<tm> LocalFields(time_t t) {
  tm fields{};
  if (localtime_r(&t, &fields) == nullptr) return std::nullopt;
  return fields;
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
    return Exactly(fields);
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
