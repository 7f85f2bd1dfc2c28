// worker.h: the process that reads and counts.
#ifndef ENGINE_WORKER_H_
#define ENGINE_WORKER_H_

#include <sys/types.h>

#include "base/unique_fd.h"
#include "engine/options.h"
#include "engine/size/exclusive_size.h"

namespace ZorvEngine {

// Does what `options` asks, in a process of its own, and ends that process.  Progress goes to
// `progress` (shared memory), notes and the outcome to `channel`.  Touches neither standard stream:
// a worker that the kernel does not let go must not hold them open.  Dies with `front`.
[[noreturn]] void RunWorker(const Options& options, SizeProgress& progress, UniqueFd channel,
                            pid_t front);

}  // namespace ZorvEngine

#endif  // ENGINE_WORKER_H_
