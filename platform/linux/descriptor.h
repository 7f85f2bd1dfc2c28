// Descriptors at fixed numbers, and away from them.
#ifndef PLATFORM_LINUX_DESCRIPTOR_H
#define PLATFORM_LINUX_DESCRIPTOR_H

#include "base/unique_fd.h"

namespace ZorvPlatform {

// Makes `target` a copy of `fd` that programs inherit.  Safe after a fork.  False: errno says why.
bool PlaceDescriptor(int fd, int target);

// A pipe that programs do not inherit, through which a forked child reports to its parent.  The
// child's end is above the standard descriptors, which the child is about to replace and which the
// caller may have closed.  False: errno says why.
bool MakeReportPipe(UniqueFd* readEnd, UniqueFd* writeEnd);

}  // namespace ZorvPlatform

#endif
