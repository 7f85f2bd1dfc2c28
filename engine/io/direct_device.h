// direct_device.h: a block device read past the page cache.
#ifndef ENGINE_IO_DIRECT_DEVICE_H_
#define ENGINE_IO_DIRECT_DEVICE_H_

#include <string>

#include "base/unique_fd.h"
#include "engine/io/byte_source.h"

namespace ZorvEngine {

// A device opened with O_DIRECT: what the page cache holds of a mounted device can be stale.
class DirectDevice : public ByteSource {
 public:
  // Opens `path`, a block device (or, for tests and tools, an image file), for reading.
  Status Open(const std::string& path);

  Status ReadAt(uint64_t offset, uint8_t* buffer, size_t size) override;
  uint64_t Size() const override { return size_; }
  int Descriptor() const override { return fd_.Get(); }
  bool Rotates() const override { return rotates_; }

 private:
  UniqueFd fd_;
  std::string path_;
  uint64_t size_ = 0;
  bool rotates_ = false;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_DIRECT_DEVICE_H_
