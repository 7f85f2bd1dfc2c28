// The volumes of this machine.
#ifndef PLATFORM_LINUX_VOLUME_H
#define PLATFORM_LINUX_VOLUME_H

#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/file_system.h"

namespace ZorvPlatform {

std::string VolumePath(int number);  // /volumeN

// What stands at /volumeN.
struct Volume {
  int number = 0;
  UniqueFd root;          // invalid: the volume is not there or cannot be read
  FileSystem fileSystem;  // meaningful when `root` is valid
  int error = 0;          // errno value that belongs to an invalid `root`
};

// "/volume3 is not there: ...", for a volume whose root is invalid, and the errno value that says
// why.
std::string WhyOutOfReach(const Volume& volume, int error);

// All volumes that stand at /volumeN or that fstab names there, by ascending number; those that are
// not there are in the list as such.  False: it cannot be told which there are; errno says why.
bool ReadVolumes(std::vector<Volume>* volumes);

// Whether fstab names a mount point at `path` or above it on which nothing is mounted, or cannot be
// read: what stands at the path, or does not, is then not what should.
bool MountIsAwaited(const std::string& path);

}  // namespace ZorvPlatform

#endif
