// What tests of processes look at: descriptors, children, signal masks.
#ifndef TESTS_PLATFORM_PROCESS_STATE_H
#define TESTS_PLATFORM_PROCESS_STATE_H

#include <signal.h>
#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

namespace ZorvTest {

// Open descriptors of this process.
std::set<int> OpenDescriptors();

// Whether this process has a child, running or not yet waited for.
bool HasChildren();

// The signals of a line of a /proc/<pid>/status text, such as "SigBlk".
std::set<int> SignalsOf(const std::string& status, const std::string& line);

// The signals that the calling thread blocks.
std::set<int> BlockedSignals();

// Blocks exactly these; the destructor restores the mask.
class ScopedMask {
 public:
  explicit ScopedMask(const std::set<int>& blocked);
  ~ScopedMask();
  ScopedMask(const ScopedMask&) = delete;

 private:
  sigset_t saved_;
};

// Sets the handling of a signal; the destructor restores it.
class ScopedHandler {
 public:
  ScopedHandler(int signal, void (*handler)(int), int flags = 0);
  ~ScopedHandler();
  ScopedHandler(const ScopedHandler&) = delete;

 private:
  const int signal_;
  struct sigaction saved_;
};

// A SIGCHLD handler that takes every status there is.
void ReapEverything(int);

// From now on this user's processes are limited to `processes`, as an ordinary user: the next fork
// fails.  Only for a child of the test.
void LimitProcesses(unsigned long processes);

// Descriptors below this number are all that this process may have from now on.
void LimitDescriptors(unsigned long limit);

}  // namespace ZorvTest

#endif
