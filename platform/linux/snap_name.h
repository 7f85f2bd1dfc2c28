// The time in a snapshot's name.
#ifndef PLATFORM_LINUX_SNAP_NAME_H
#define PLATFORM_LINUX_SNAP_NAME_H

#include <ctime>

namespace ZorvPlatform {

// [@]GMT[zone]-YYYY.MM.DD-HH.MM.SS, the whole text and a date that exists.  False: the name carries
// no time, and `time` is left alone.
bool SnapNameTime(const char* name, time_t* time);

}  // namespace ZorvPlatform

#endif
