// Times in names of snapshots that follow a format, as Samba's shadow:format.
#ifndef PLATFORM_LINUX_NAME_FORMAT_H
#define PLATFORM_LINUX_NAME_FORMAT_H

#include <ctime>
#include <string>

namespace ZorvPlatform {

// The time that the whole `name` tells by `format` (strptime(3), in the C locale), which is written
// in this machine's zone or in UTC; "%s" is seconds since the epoch in both.  False: it is another
// name, or a date that no calendar has.
bool ReadFormattedName(const std::string& name, const std::string& format, bool localTime,
                       time_t* time);

// Whether a format tells the day at least, in a way that ReadFormattedName reads: no name fits
// another one.
bool TellsADay(const std::string& format, bool localTime);

}  // namespace ZorvPlatform

#endif
