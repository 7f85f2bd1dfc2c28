// Memory that a test shares with the processes that it forks.
#ifndef TESTS_SUPPORT_SHARED_MEMORY_H_
#define TESTS_SUPPORT_SHARED_MEMORY_H_

#include <sys/mman.h>

#include <new>
#include <stdexcept>

namespace ZorvTest {

// One T, made before the fork and gone with the object of the process that made it.
template <typename T>
class SharedMemory {
 public:
  SharedMemory() {
    void* const memory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
    value_ = new (memory) T;
  }
  ~SharedMemory() { (void)munmap(value_, sizeof(T)); }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  T* operator->() const { return value_; }
  T& operator*() const { return *value_; }

 private:
  T* value_;
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_SHARED_MEMORY_H_
