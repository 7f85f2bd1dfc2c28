#include "engine/io/direct_device.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

namespace ZorvEngine {

Status DirectDevice::Open(const std::string& path) {
  path_ = path;
  fd_.Reset(open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  if (!fd_.Valid()) return Status::Failed("cannot open device " + path + ": " + strerror(errno));

  const off_t end = lseek(fd_.Get(), 0, SEEK_END);
  if (end < 0) return Status::Failed("cannot find the size of " + path + ": " + strerror(errno));
  size_ = static_cast<uint64_t>(end);
  return Status();
}

Status DirectDevice::ReadAt(uint64_t offset, uint8_t* buffer, size_t size) {
  const std::string place = path_ + " at " + std::to_string(offset);
  if (offset > size_ || size > size_ - offset)
    return Status::Failed(place + " lies beyond the end of the device");

  while (size > 0) {
    const ssize_t got = pread(fd_.Get(), buffer, size, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return Status::Failed("cannot read " + place + ": " + strerror(errno));
    if (got == 0) return Status::Failed("cannot read " + place + ": the device ends there");
    buffer += got;
    offset += static_cast<uint64_t>(got);
    size -= static_cast<size_t>(got);
  }
  return Status();
}

}  // namespace ZorvEngine
