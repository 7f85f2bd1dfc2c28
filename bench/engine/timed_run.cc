// Runs a command and says what it took, so that no interpreter's start or memory is in the figures.
//
//   timed_run RESULT COMMAND...
//
// RESULT gets one line: microseconds from the start to the end, microseconds on the processors,
// largest resident memory of any of its processes in KiB, exit status.  Processes that the command
// leaves behind count too, but for the time to its end.
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <cstdint>

extern char** environ;

namespace {

int64_t NowMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int64_t Microseconds(const timeval& time) {
  return static_cast<int64_t>(time.tv_sec) * 1000000 + time.tv_usec;
}

// What a command took.
struct Cost {
  int64_t elapsed = 0;
  int64_t processor = 0;
  long residentKiB = 0;
  int status = 0;

  void Add(const rusage& used) {
    processor += Microseconds(used.ru_utime) + Microseconds(used.ru_stime);
    residentKiB = std::max(residentKiB, used.ru_maxrss);
  }
};

// Waits for processes, the child and those that it leaves behind, until there are none.
void Collect(pid_t child, int64_t start, Cost* out) {
  for (;;) {
    int status = 0;
    rusage used{};
    const pid_t ended = wait4(-1, &status, 0, &used);
    if (ended < 0 && errno == EINTR) continue;
    if (ended < 0) return;
    out->Add(used);
    if (ended != child) continue;
    out->elapsed = NowMicroseconds() - start;
    out->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
}

// Runs `argv` to its end; 0 or an errno.
int Run(char** argv, Cost* out) {
  (void)prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  const int64_t start = NowMicroseconds();
  pid_t child = -1;
  const int failed = posix_spawnp(&child, argv[0], nullptr, nullptr, argv, environ);
  if (failed != 0) return failed;
  Collect(child, start, out);
  return 0;
}

bool WriteResult(const char* path, const Cost& cost) {
  FILE* file = fopen(path, "we");
  if (file == nullptr) return false;
  fprintf(file, "%lld %lld %ld %d\n", static_cast<long long>(cost.elapsed),
          static_cast<long long>(cost.processor), cost.residentKiB, cost.status);
  return fclose(file) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: timed_run RESULT COMMAND...\n");
    return 2;
  }
  Cost cost;
  const int failed = Run(argv + 2, &cost);
  if (failed != 0) {
    fprintf(stderr, "timed_run: %s: %s\n", argv[2], strerror(failed));
    return 127;
  }
  if (!WriteResult(argv[1], cost)) {
    fprintf(stderr, "timed_run: %s: %s\n", argv[1], strerror(errno));
    return 1;
  }
  return cost.status;
}
