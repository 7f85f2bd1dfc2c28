// mounted_devices.h: finds and opens the devices of a mounted file system.
#ifndef ENGINE_IO_MOUNTED_DEVICES_H_
#define ENGINE_IO_MOUNTED_DEVICES_H_

#include <cstdint>
#include <string>

#include "engine/io/device_set.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Fills `out` with every device that the kernel knows of the file system behind the descriptor
// `fd`, whose id (16 bytes) is `fsid`; seeds are among them.  A device counts as there only when
// its own superblock carries the uuid that the kernel says, whatever its path; when the kernel's
// path leads nowhere, or to another device, the names in /sys/fs/btrfs/<fsid>/devices are tried.
//
// The target of a running replacement (number 0) is left out: it is complete only at the end.
// Fails when the kernel cannot be asked; a device that cannot be opened is a missing one.
Status OpenMountedDevices(int fd, const uint8_t* fsid, DeviceSet* out);

// A uuid (16 bytes) as the kernel writes it in paths.
std::string UuidText(const uint8_t* uuid);

}  // namespace ZorvEngine

#endif  // ENGINE_IO_MOUNTED_DEVICES_H_
