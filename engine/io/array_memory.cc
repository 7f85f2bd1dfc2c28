#include "engine/io/array_memory.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>

#include "base/unique_fd.h"

namespace ZorvEngine {

void* ArrayMemory::Allocate(size_t bytes) {
  if (inMemory_ + bytes > mostBytes_) return AllocateFile(bytes);
  void* const memory =
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return AllocateFile(bytes);
  inMemory_ += bytes;
  return memory;
}

void* ArrayMemory::AllocateFile(size_t bytes) {
  const UniqueFd file(open(directory_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  int error = file.Valid() ? posix_fallocate(file.Get(), 0, static_cast<off_t>(bytes)) : errno;
  if (error == 0) {
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
    if (memory != MAP_FAILED) {
      files_.insert(memory);
      spilled_ += bytes;
      return memory;
    }
    error = errno;
  }
  throw NoArrayMemory("there is no room for " + std::to_string(bytes >> 10) + " KiB more in " +
                      directory_ + " (" + strerror(error) +
                      "); make room there, allow more memory, or ask for fewer subvolumes");
}

// Memory of the process is moved by its page tables: nothing is copied, and no page needed twice.
void* ArrayMemory::Enlarge(void* memory, size_t bytes, size_t newBytes) {
  if (files_.count(memory) == 0 && inMemory_ - bytes + newBytes <= mostBytes_) {
    void* const moved = mremap(memory, bytes, newBytes, MREMAP_MAYMOVE);
    if (moved != MAP_FAILED) {
      inMemory_ += newBytes - bytes;
      return moved;
    }
  }
  void* const larger = Allocate(newBytes);
  memcpy(larger, memory, bytes);
  Free(memory, bytes);
  return larger;
}

void ArrayMemory::Free(void* memory, size_t bytes) {
  (void)munmap(memory, bytes);
  (files_.erase(memory) != 0 ? spilled_ : inMemory_) -= bytes;
}

}  // namespace ZorvEngine
