// What testparm, Samba's reader of its own configuration, prints.
#ifndef PLATFORM_LINUX_TESTPARM_H
#define PLATFORM_LINUX_TESTPARM_H

#include <string>

#include "platform/linux/source.h"

namespace ZorvPlatform {

// Adds the shares that show shadow copies and whose snapshots can be found, and notes of others
// that show some why not.  False: `why` says what cannot be understood, and nothing has been added.
bool ParseTestparm(const std::string& text, Configured* configured, std::string* why);

}  // namespace ZorvPlatform

#endif
