#include "engine/io/io_priority.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace ZorvEngine {
namespace {

// As in ioprio_set(2).  The values of <linux/ioprio.h> come with a function that is no C++.
constexpr int kOfThread = 1;      // IOPRIO_WHO_PROCESS
constexpr int kIdleClass = 3;     // IOPRIO_CLASS_IDLE
constexpr int kBitsOfLevel = 13;  // IOPRIO_CLASS_SHIFT

}  // namespace

// Schedulers that look at the class (bfq, mq-deadline on recent kernels) serve an idle reader when
// nobody else wants anything, and now and then all the same: bfq every fifth of a second,
// mq-deadline when a request has waited ten seconds.  So a run beside a busy disk is slow but comes
// to its end, and its progress is seen all the while.  Schedulers that do not look (none, kyber)
// lose nothing.
//
// A new thread starts with the class of the one that made it.  A read on an io_uring has the class
// of the thread that hands it to the kernel, as long as the entry names none; so the threads alone
// decide, and ring and plain reads behave alike.
void ReadWhenIdle() {
  constexpr int kThisThread = 0;
  (void)syscall(SYS_ioprio_set, kOfThread, kThisThread, kIdleClass << kBitsOfLevel);
}

}  // namespace ZorvEngine
