// The platform's own file, in which somebody has written shares down: /etc/zorv-snapusage.conf.
#ifndef PLATFORM_LINUX_SHARES_FILE_H
#define PLATFORM_LINUX_SHARES_FILE_H

#include <string>

#include "platform/linux/source.h"

namespace ZorvPlatform {

// Adds the shares of the file, and sets which sources are asked besides.  Without the file nothing
// changes.  0, or -1 with the error record set: its text names the file and the line.
int ReadSharesFile(Configured* configured, SourceSwitches* switches);

}  // namespace ZorvPlatform

#endif
