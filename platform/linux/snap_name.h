// The time in a snapshot's name.
#ifndef PLATFORM_LINUX_SNAP_NAME_H
#define PLATFORM_LINUX_SNAP_NAME_H

#include <cstdint>
#include <ctime>
#include <string>

namespace ZorvPlatform {

// What a snapshot's name tells.
struct SnapName {
  time_t time = 0;
  uint64_t number = 0;  // 0: the name has none
};

// [@]GMT[zone]-YYYY.MM.DD-HH.MM.SS[-NUMBER], the whole text, a date that exists, a number without a
// leading zero.  False: the name carries no time, and `found` is left alone.
bool ReadSnapName(const char* name, SnapName* found);

// The number that a text consists of, as names have it: decimal, 1 or more, without a leading zero,
// of 19 digits at most.  0: it is no such text.
uint64_t ReadSnapNumber(const char* text);

// GMT-YYYY.MM.DD-HH.MM.SS-NUMBER, which ReadSnapName reads; NUMBER alone when the time's year has
// no four digits.
std::string MakeSnapName(time_t time, uint64_t number);

}  // namespace ZorvPlatform

#endif
