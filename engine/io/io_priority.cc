#include "engine/io/io_priority.h"

#include <linux/ioprio.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZorvEngine {

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
  (void)syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, kThisThread,
                IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0));
}

}  // namespace ZorvEngine
