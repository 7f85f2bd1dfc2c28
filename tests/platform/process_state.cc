#include "tests/platform/process_state.h"

#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace ZorvTest {

std::set<int> OpenDescriptors() {
  std::set<int> open;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) throw std::runtime_error("no /proc/self/fd");
  while (const dirent* entry = readdir(dir)) {
    const int fd = atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd != dirfd(dir)) open.insert(fd);
  }
  closedir(dir);
  return open;
}

bool HasChildren() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

std::set<int> SignalsOf(const std::string& status, const std::string& line) {
  const size_t at = status.find(line + ":");
  if (at == std::string::npos) throw std::runtime_error("no " + line + " in " + status);
  const unsigned long long mask = strtoull(status.c_str() + at + line.size() + 1, nullptr, 16);
  std::set<int> signals;
  for (int signal = 1; signal <= 64; ++signal)
    if ((mask >> (signal - 1)) & 1) signals.insert(signal);
  return signals;
}

std::set<int> BlockedSignals() {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  std::set<int> signals;
  for (int signal = 1; signal <= 64; ++signal)
    if (sigismember(&mask, signal) == 1) signals.insert(signal);
  return signals;
}

ScopedMask::ScopedMask(const std::set<int>& blocked) {
  sigset_t mask;
  sigemptyset(&mask);
  for (const int signal : blocked) sigaddset(&mask, signal);
  pthread_sigmask(SIG_SETMASK, &mask, &saved_);
}

ScopedMask::~ScopedMask() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }

ScopedHandler::ScopedHandler(int signal, void (*handler)(int), int flags) : signal_(signal) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigaction(signal, &action, &saved_);
}

ScopedHandler::~ScopedHandler() { sigaction(signal_, &saved_, nullptr); }

void ReapEverything(int) {
  const int saved = errno;
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  errno = saved;
}

void LimitProcesses(unsigned long processes) {
  const uid_t user = 54321;  // nobody else's, so that only this process counts
  const rlimit limit = {processes, processes};
  if (setrlimit(RLIMIT_NPROC, &limit) != 0 || setresuid(user, user, user) != 0)
    throw std::runtime_error("cannot become an ordinary user");
}

void LimitDescriptors(unsigned long limit) {
  rlimit now;
  if (getrlimit(RLIMIT_NOFILE, &now) != 0) throw std::runtime_error("no limit of descriptors");
  now.rlim_cur = limit;
  if (setrlimit(RLIMIT_NOFILE, &now) != 0) throw std::runtime_error("cannot limit descriptors");
}

}  // namespace ZorvTest
