// Where a configured share lies on the disk.
#ifndef PLATFORM_LINUX_CONFIGURED_SHARE_H
#define PLATFORM_LINUX_CONFIGURED_SHARE_H

#include <sys/types.h>

#include <string>

#include "platform/linux/source.h"

namespace ZorvPlatform {

// Whether the share's path is there for certain and is no subvolume, nor waits for a mount.
bool IsNoSubvolume(const ConfiguredShare& share);

struct Location {
  dev_t subvolume = 0;  // its device number, which no other subvolume of the machine has
  std::string path;     // without links
  std::string snapDir;  // likewise, when it is there
  std::string volume;   // /volumeN
};

// Finds the subvolume, and the volume that it lies on.  0, or -1 with the error record set, which
// says in words what is to be done.
int Locate(const ConfiguredShare& share, Location* location);

}  // namespace ZorvPlatform

#endif
