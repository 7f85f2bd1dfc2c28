// Descriptors at fixed numbers.
#ifndef PLATFORM_LINUX_DESCRIPTOR_H
#define PLATFORM_LINUX_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

namespace ZorvPlatform {

// Makes `target` a copy of `fd` that programs inherit.  Safe after a fork.  False: errno says why.
inline bool PlaceDescriptor(int fd, int target) {
  if (fd == target) return fcntl(fd, F_SETFD, 0) == 0;
  return dup2(fd, target) == target;
}

}  // namespace ZorvPlatform

#endif
