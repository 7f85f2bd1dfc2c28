// Points in time as the user writes and reads them; all of them are local times.
#ifndef CLI_TIME_TEXT_H_
#define CLI_TIME_TEXT_H_

#include <time.h>

#include <optional>
#include <string>

namespace ZorvSnapUsage {

// Which second a text means that leaves the seconds or the time of day out.
enum class TimeBound { kFirstSecond, kLastSecond };

// Reads 2024.03.05-17.04.09 (the form in snapshot names and status files), 2024-03-05,
// 2024-03-05 17:04 or 2024-03-05 17:04:09 (also with a T in place of the blank).
// Nothing: another form, or a time that the calendar or the clock does not have.
std::optional<time_t> ParseTime(const std::string& text, TimeBound bound);

// 2024-03-05 17:04:09
std::string TimeForPeople(time_t t);

// 2024-03-05T17:04:09+08:00
std::string TimeForPrograms(time_t t);

}  // namespace ZorvSnapUsage

#endif  // CLI_TIME_TEXT_H_
