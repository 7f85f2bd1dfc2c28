#include "tests/support/engine_worker.h"

#include <dirent.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace ZorvTest {
namespace {

bool IsEngine(pid_t pid) {
  static const std::string engine = [] {
    char path[PATH_MAX];
    return std::string(realpath("/sbin/btrfs", path) ? path : "/sbin/btrfs");
  }();
  char exe[PATH_MAX];
  const ssize_t n = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), exe, sizeof exe);
  return n > 0 && engine == std::string(exe, static_cast<size_t>(n));
}

pid_t ParentOf(pid_t pid) {
  FILE* stat = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re");
  if (stat == nullptr) return -1;
  int parent = -1;
  if (fscanf(stat, "%*d (%*[^)]) %*c %d", &parent) != 1) parent = -1;
  fclose(stat);
  return parent;
}

// Whether the engine was asked for its version. It has no worker then, but what a leak checker
// starts at its end looks like one.
bool AskedForVersion(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
  const std::string words((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return words.find("--version") != std::string::npos;
}

pid_t FindWorker() {
  const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  while (const dirent* entry = readdir(proc.get())) {
    const pid_t pid = atoi(entry->d_name);
    if (pid > 1 && IsEngine(pid) && IsEngine(ParentOf(pid)) && !AskedForVersion(pid)) return pid;
  }
  return -1;
}

}  // namespace

pid_t HoldEngineWorker(double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    const pid_t worker = FindWorker();
    if (worker > 0 && kill(worker, SIGSTOP) == 0) return worker;
    usleep(200);
  }
  return -1;
}

}  // namespace ZorvTest
