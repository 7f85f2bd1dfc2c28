#include "platform/linux/snap_name.h"

#include <cstring>

namespace ZorvPlatform {

namespace {

// Walks over a name; every step is false, and takes nothing, when the text is another one.
class Reader {
 public:
  explicit Reader(const char* text) : at_(text) {}

  bool Text(const char* expected) {
    const size_t length = strlen(expected);
    if (strncmp(at_, expected, length) != 0) return false;
    at_ += length;
    return true;
  }

  // A number of `least` to `most` digits that ends before something else than a digit.
  bool Number(size_t least, size_t most, int* value) {
    const size_t digits = Digits();
    if (digits < least || digits > most) return false;
    *value = 0;
    for (size_t i = 0; i < digits; ++i) *value = *value * 10 + (*at_++ - '0');
    return true;
  }

  size_t Digits() const { return strspn(at_, "0123456789"); }
  char At(size_t offset) const { return at_[offset]; }
  bool AtEnd() const { return *at_ == '\0'; }

 private:
  const char* at_;
};

struct ZonedTime {
  int zoneSeconds = 0;  // east of Greenwich
  int year = 0, month = 0, day = 0;
  int hour = 0, minute = 0, second = 0;
};

// "+HH", "-HH", "+HHMM", "-HHMM", or nothing.  "-" is also what comes between zone and date: it is
// the sign of a zone when two or four digits and another "-" follow, which no year has.
bool ReadZone(Reader* reader, int* seconds) {
  Reader ahead = *reader;
  const bool east = ahead.Text("+");
  if (!east && !ahead.Text("-")) return false;
  const size_t digits = ahead.Digits();
  if ((digits != 2 && digits != 4) || ahead.At(digits) != '-') return !east;

  int zone = 0;
  if (!ahead.Number(digits, digits, &zone)) return false;
  const int hours = digits == 4 ? zone / 100 : zone;
  const int minutes = digits == 4 ? zone % 100 : 0;
  if (hours > 24 || minutes > 59) return false;  // as far as a TZ variable goes, tzset(3)
  *seconds = (hours * 60 + minutes) * (east ? 60 : -60);
  *reader = ahead;
  return true;
}

bool ReadName(const char* name, ZonedTime* t) {
  Reader reader(name);
  (void)reader.Text("@");
  return reader.Text("GMT") && ReadZone(&reader, &t->zoneSeconds) && reader.Text("-") &&
         reader.Number(4, 9, &t->year) && reader.Text(".") && reader.Number(2, 2, &t->month) &&
         reader.Text(".") && reader.Number(2, 2, &t->day) && reader.Text("-") &&
         reader.Number(2, 2, &t->hour) && reader.Text(".") && reader.Number(2, 2, &t->minute) &&
         reader.Text(".") && reader.Number(2, 2, &t->second) && reader.AtEnd();
}

// timegm carries what is too large over to the next field; a date that comes back otherwise than it
// went in does not exist.
bool ToTime(const ZonedTime& t, time_t* time) {
  if (t.month < 1 || t.month > 12) return false;
  tm fields = {};
  fields.tm_year = t.year - 1900;
  fields.tm_mon = t.month - 1;
  fields.tm_mday = t.day;
  fields.tm_hour = t.hour;
  fields.tm_min = t.minute;
  fields.tm_sec = t.second;
  const time_t seconds = timegm(&fields);
  if (fields.tm_mon != t.month - 1 || fields.tm_mday != t.day || fields.tm_hour != t.hour ||
      fields.tm_min != t.minute || fields.tm_sec != t.second) {
    return false;
  }
  *time = seconds - t.zoneSeconds;
  return true;
}

}  // namespace

bool SnapNameTime(const char* name, time_t* time) {
  ZonedTime zoned;
  return ReadName(name, &zoned) && ToTime(zoned, time);
}

}  // namespace ZorvPlatform
