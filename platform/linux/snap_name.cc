#include "platform/linux/snap_name.h"

#include <cstring>

namespace ZorvPlatform {

namespace {

constexpr char kDigits[] = "0123456789";

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

  size_t Digits() const { return strspn(at_, kDigits); }
  char At(size_t offset) const { return at_[offset]; }
  bool AtEnd() const { return *at_ == '\0'; }
  const char* Rest() const { return at_; }

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

// "-NUMBER" up to the end, or nothing.
bool ReadNumber(Reader* reader, uint64_t* number) {
  if (reader->AtEnd()) return true;
  if (!reader->Text("-")) return false;
  *number = ReadSnapNumber(reader->Rest());
  return *number != 0;
}

bool ReadName(const char* name, ZonedTime* t, uint64_t* number) {
  Reader reader(name);
  (void)reader.Text("@");
  return reader.Text("GMT") && ReadZone(&reader, &t->zoneSeconds) && reader.Text("-") &&
         reader.Number(4, 9, &t->year) && reader.Text(".") && reader.Number(2, 2, &t->month) &&
         reader.Text(".") && reader.Number(2, 2, &t->day) && reader.Text("-") &&
         reader.Number(2, 2, &t->hour) && reader.Text(".") && reader.Number(2, 2, &t->minute) &&
         reader.Text(".") && reader.Number(2, 2, &t->second) && ReadNumber(&reader, number);
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

bool ReadSnapName(const char* name, SnapName* found) {
  ZonedTime zoned;
  SnapName read;
  if (!ReadName(name, &zoned, &read.number) || !ToTime(zoned, &read.time)) return false;
  *found = read;
  return true;
}

uint64_t ReadSnapNumber(const char* text) {
  constexpr size_t kMostDigits = 19;  // as many as 64 bits hold, whatever they are
  const size_t digits = strspn(text, kDigits);
  if (text[digits] != '\0' || digits > kMostDigits || text[0] == '0') return 0;
  uint64_t number = 0;
  for (size_t i = 0; i < digits; ++i) number = number * 10 + static_cast<uint64_t>(text[i] - '0');
  return number;
}

std::string MakeSnapName(time_t time, uint64_t number) {
  tm fields;
  char text[sizeof "GMT-YYYY.MM.DD-HH.MM.SS"];
  const bool named = gmtime_r(&time, &fields) != nullptr && fields.tm_year >= 1000 - 1900 &&
                     strftime(text, sizeof text, "GMT-%Y.%m.%d-%H.%M.%S", &fields) != 0;
  return named ? text + ("-" + std::to_string(number)) : std::to_string(number);
}

}  // namespace ZorvPlatform
