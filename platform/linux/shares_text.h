// What the platform's own file of shares says.
#ifndef PLATFORM_LINUX_SHARES_TEXT_H
#define PLATFORM_LINUX_SHARES_TEXT_H

#include <string>

#include "platform/linux/source.h"

namespace ZorvPlatform {

inline constexpr char kSharesFile[] = "/etc/zorv-snapusage.conf";

// Adds the shares of the file's content, and sets which sources are asked besides.  False: `why`
// begins with the number of the line, "7: ...".
bool ParseShares(const std::string& text, Configured* configured, SourceSwitches* switches,
                 std::string* why);

}  // namespace ZorvPlatform

#endif
