// String lists, for the platform's own use.
#ifndef PLATFORM_LINUX_SZ_LIST_H
#define PLATFORM_LINUX_SZ_LIST_H

#include <string>
#include <vector>

#include "platform/linux/error.h"
#include "zorvplatform/platc.h"

namespace ZorvPlatform {

// Appends all `names`, or none.  0, or -1 with the error record set: out of memory.
int AppendAll(Site site, PLATSZLIST* list, const std::vector<std::string>& names);

}  // namespace ZorvPlatform

#endif
