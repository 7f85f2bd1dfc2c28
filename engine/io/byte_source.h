// byte_source.h: where raw bytes come from; the seam between devices and everything above them.
#ifndef ENGINE_IO_BYTE_SOURCE_H_
#define ENGINE_IO_BYTE_SOURCE_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Memory, addresses and sizes of direct reads are multiples of this; it suits every logical block
// size that a stock kernel accepts for btrfs.
constexpr size_t kDirectAlignment = 4096;

// A device or image, read at byte offsets.
class ByteSource {
 public:
  virtual ~ByteSource() = default;

  // Fills `size` bytes at `buffer` from `offset`; all three are multiples of kDirectAlignment.
  // A range beyond the end is a failure, never a short read.  Called from several threads at once.
  virtual Status ReadAt(uint64_t offset, uint8_t* buffer, size_t size) = 0;

  // Size in bytes.
  virtual uint64_t Size() const = 0;

  // A descriptor that reads the same bytes at the same offsets; -1 when there is none.
  virtual int Descriptor() const { return -1; }

  // Whether it has a head that must get to a place before it can read there.
  virtual bool Rotates() const { return false; }
};

struct FreeMemory {
  void operator()(uint8_t* memory) const { free(memory); }
};
using AlignedBuffer = std::unique_ptr<uint8_t[], FreeMemory>;

// `size` bytes for direct reads; null when there is no memory.
inline AlignedBuffer MakeAlignedBuffer(size_t size) {
  return AlignedBuffer(static_cast<uint8_t*>(aligned_alloc(kDirectAlignment, size)));
}

}  // namespace ZorvEngine

#endif  // ENGINE_IO_BYTE_SOURCE_H_
