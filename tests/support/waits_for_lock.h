// Who waits for a lock.
#ifndef TESTS_SUPPORT_WAITS_FOR_LOCK_H_
#define TESTS_SUPPORT_WAITS_FOR_LOCK_H_

#include <sys/types.h>

#include <fstream>
#include <string>

namespace ZorvTest {

// Whether the kernel lists `pid` as waiting for a record lock (proc(5), /proc/locks, "->").
inline bool WaitsForLock(pid_t pid) {
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);)
    if (line.find("->") != std::string::npos &&
        line.find(" " + std::to_string(pid) + " ") != std::string::npos)
      return true;
  return false;
}

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_WAITS_FOR_LOCK_H_
