// array_memory.h: large arrays whose memory is limited: beyond the limit they lie in a file.
#ifndef ENGINE_IO_ARRAY_MEMORY_H_
#define ENGINE_IO_ARRAY_MEMORY_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>

namespace ZorvEngine {

// Neither memory nor room in the file can be had; the text is one sentence for the user.
class NoArrayMemory : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Hands out memory: of this process up to a limit, then mapped from unlinked files, whose pages the
// kernel writes out when it needs the room.  Not for several threads at once.
class ArrayMemory {
 public:
  // `mostBytes` of memory of the process; files are made in `directory`.
  explicit ArrayMemory(size_t mostBytes, std::string directory = "/var/tmp")
      : mostBytes_(mostBytes), directory_(std::move(directory)) {}
  ArrayMemory(const ArrayMemory&) = delete;
  ArrayMemory& operator=(const ArrayMemory&) = delete;

  // `bytes` of zeros, aligned to a page.  Room in a file is reserved at once, so that a full disk
  // is met here and not by a signal later.  Throws NoArrayMemory.
  void* Allocate(size_t bytes);

  // Makes `newBytes`, more than before, of what Allocate gave for `bytes`; what is new is zeros.
  // Returns where it lies now.  Throws NoArrayMemory: then all is as it was.
  void* Enlarge(void* memory, size_t bytes, size_t newBytes);

  // Gives back what Allocate or Enlarge gave, with the same number.
  void Free(void* memory, size_t bytes);

  // Bytes that lie in files now.
  size_t SpilledBytes() const { return spilled_; }

 private:
  void* AllocateFile(size_t bytes);

  const size_t mostBytes_;
  const std::string directory_;
  size_t inMemory_ = 0;
  size_t spilled_ = 0;
  std::unordered_set<void*> files_;  // what was allocated in files
};

// A growing array of plain values in such memory.
template <typename T>
class BigArray {
 public:
  static_assert(std::is_trivially_copyable_v<T>, "moved as bytes");

  // The memory is the caller's and outlives the array.
  explicit BigArray(ArrayMemory& memory) : memory_(&memory) {}
  BigArray(BigArray&& other) noexcept
      : memory_(other.memory_),
        values_(std::exchange(other.values_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        bytes_(std::exchange(other.bytes_, 0)) {}
  BigArray& operator=(BigArray&& other) noexcept {
    std::swap(values_, other.values_);
    std::swap(size_, other.size_);
    std::swap(bytes_, other.bytes_);
    std::swap(memory_, other.memory_);
    return *this;
  }
  ~BigArray() { Clear(); }

  size_t Size() const { return size_; }
  T& operator[](size_t index) { return values_[index]; }
  const T& operator[](size_t index) const { return values_[index]; }
  T* begin() { return values_; }
  T* end() { return values_ + size_; }
  const T* begin() const { return values_; }
  const T* end() const { return values_ + size_; }

  // Throws NoArrayMemory.
  void Add(const T& value) {
    if ((size_ + 1) * sizeof(T) > bytes_) Grow(size_ + 1);
    values_[size_++] = value;
  }

  // Grows to `size` values, the new ones all zero bits.  Throws NoArrayMemory.
  void GrowTo(size_t size) {
    if (size * sizeof(T) > bytes_) Grow(size);
    if (size > size_) size_ = size;
  }

  // Leaves the first `size` values, which are not more than there are.
  void Shorten(size_t size) { size_ = size; }

  // Empties the array and gives its memory back.
  void Clear() {
    if (values_ != nullptr) memory_->Free(values_, bytes_);
    values_ = nullptr;
    size_ = bytes_ = 0;
  }

 private:
  static constexpr size_t kFirstBytes = 64 << 10;

  void Grow(size_t size) {
    size_t bytes = bytes_ == 0 ? kFirstBytes : 2 * bytes_;
    while (bytes < size * sizeof(T)) bytes *= 2;
    values_ = static_cast<T*>(values_ == nullptr ? memory_->Allocate(bytes)
                                                 : memory_->Enlarge(values_, bytes_, bytes));
    bytes_ = bytes;
  }

  ArrayMemory* memory_;
  T* values_ = nullptr;
  size_t size_ = 0;
  size_t bytes_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_ARRAY_MEMORY_H_
