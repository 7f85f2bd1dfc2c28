// Shares that snapper's configurations name.
#ifndef PLATFORM_LINUX_SNAPPER_H
#define PLATFORM_LINUX_SNAPPER_H

#include <string>

#include "platform/linux/source.h"

namespace ZorvPlatform {

// Adds a share for each btrfs configuration in /etc/snapper/configs.  Without that directory there
// are none.  0, or -1 with the error record set.
int ReadSnapper(Configured* configured);

}  // namespace ZorvPlatform

#endif
