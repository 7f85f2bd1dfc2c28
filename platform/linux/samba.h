// Shares of Samba that show shadow copies.
#ifndef PLATFORM_LINUX_SAMBA_H
#define PLATFORM_LINUX_SAMBA_H

#include <string>

#include "platform/linux/source.h"

namespace ZorvPlatform {

// Adds the shares of /etc/samba/smb.conf whose snapshots can be found.  Without that file, or when
// no part of it can speak of shadow copies, there are none and no program is started.  0, or -1
// with the error record set.
int ReadSamba(Configured* configured);

}  // namespace ZorvPlatform

#endif
