// Holds the engine's worker process still, so that a test is in the middle of a run for sure.
#ifndef TESTS_SUPPORT_ENGINE_WORKER_H_
#define TESTS_SUPPORT_ENGINE_WORKER_H_

#include <sys/types.h>

namespace ZorvTest {

// Waits up to `seconds` for a worker (a process of /sbin/btrfs whose parent is one too) and sends
// it SIGSTOP. Returns its pid, or -1 when none came.
pid_t HoldEngineWorker(double seconds = 20);

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_ENGINE_WORKER_H_
