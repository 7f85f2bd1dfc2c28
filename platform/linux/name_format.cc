#include "platform/linux/name_format.h"

#include <clocale>

namespace ZorvPlatform {

namespace {

// Never freed: names are read until the process ends.  Null: no memory.
locale_t CLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", locale_t(nullptr));
  return locale;
}

// strptime gives the seconds of "%s" as a time of this machine's zone.
bool HasEpochSeconds(const std::string& format) {
  for (size_t at = 0; at + 1 < format.size(); ++at) {
    if (format[at] != '%') continue;
    if (format[at + 1] == 's') return true;
    ++at;  // "%%s" is a per cent sign and an s
  }
  return false;
}

}  // namespace

bool ReadFormattedName(const std::string& name, const std::string& format, bool localTime,
                       time_t* time) {
  if (CLocale() == nullptr) return false;
  tm fields = {};
  const char* end = strptime_l(name.c_str(), format.c_str(), &fields, CLocale());
  if (end == nullptr || *end != '\0') return false;

  const tm read = fields;
  fields.tm_isdst = -1;
  const bool local = localTime || HasEpochSeconds(format);
  const time_t seconds = local ? mktime(&fields) : timegm(&fields);
  // A day that the calendar has not is carried over to another; an hour that summer time leaves out
  // is as well, and was the name of a snapshot all the same.
  if (fields.tm_mon != read.tm_mon || fields.tm_mday != read.tm_mday) return false;
  *time = seconds;
  return true;
}

bool TellsADay(const std::string& format, bool localTime) {
  constexpr time_t kSomeTime = 981173106;  // 3 February 2001: all its parts differ
  const bool local = localTime || HasEpochSeconds(format);
  tm fields = {};
  if ((local ? localtime_r : gmtime_r)(&kSomeTime, &fields) == nullptr || CLocale() == nullptr)
    return false;
  char name[8192];  // more than the longest line of a format makes
  const size_t length = strftime_l(name, sizeof name, format.c_str(), &fields, CLocale());
  time_t time = 0;
  return length > 0 && ReadFormattedName(name, format, localTime, &time);
}

}  // namespace ZorvPlatform
