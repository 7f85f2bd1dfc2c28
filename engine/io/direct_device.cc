#include "engine/io/direct_device.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fstream>

namespace ZorvEngine {
namespace {

// Whether the kernel takes the device for one that rotates.  A partition has its queue in the
// folder above, which is the disk's.
bool IsRotating(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISBLK(status.st_mode)) return false;
  const std::string folder = "/sys/dev/block/" + std::to_string(major(status.st_rdev)) + ":" +
                             std::to_string(minor(status.st_rdev));
  for (const char* queue : {"/queue", "/../queue"}) {
    std::ifstream file(folder + queue + "/rotational");
    char flag = 0;
    if (file.get(flag)) return flag == '1';
  }
  return false;
}

// Root of a user namespace, and root without some of its rights, are kept from devices.
const char* NextStep(int error) {
  return error == EACCES || error == EPERM ? "; root of the machine is needed, with all its rights"
                                           : "";
}

}  // namespace

Status DirectDevice::Open(const std::string& path) {
  path_ = path;
  fd_.Reset(open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  if (!fd_.Valid())
    return Status::Failed("cannot open device " + path + ": " + strerror(errno) + NextStep(errno));

  const off_t end = lseek(fd_.Get(), 0, SEEK_END);
  if (end < 0) return Status::Failed("cannot find the size of " + path + ": " + strerror(errno));
  size_ = static_cast<uint64_t>(end);
  rotates_ = IsRotating(fd_.Get());
  return Status();
}

Status DirectDevice::ReadAt(uint64_t offset, uint8_t* buffer, size_t size) {
  const auto place = [&] { return path_ + " at " + std::to_string(offset); };
  if (offset > size_ || size > size_ - offset)
    return Status::Failed(place() + " lies beyond the end of the device");

  while (size > 0) {
    const ssize_t got = pread(fd_.Get(), buffer, size, static_cast<off_t>(offset));
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got < 0) return Status::Failed("cannot read " + place() + ": " + strerror(errno));
    if (got == 0) return Status::Failed("cannot read " + place() + ": the device ends there");
    buffer += got;
    offset += static_cast<uint64_t>(got);
    size -= static_cast<size_t>(got);
  }
  return Status();
}

}  // namespace ZorvEngine
