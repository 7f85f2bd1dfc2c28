// worker.h: the process that reads and counts.
#ifndef ENGINE_WORKER_H_
#define ENGINE_WORKER_H_

#include <sys/types.h>

#include "base/unique_fd.h"
#include "engine/options.h"
#include "engine/size/exclusive_size.h"

namespace ZorvEngine {

// The worker's ends of two pipes.
struct FrontLink {
  UniqueFd channel;  // to the front: notes and the outcome
  UniqueFd go;       // from it: ends when the turn has come
};

// Does what `options` asks, in a process of its own, and ends that process.  Progress goes to
// `progress` (shared memory), notes and the outcome to the front.  Touches neither standard stream:
// a worker that the kernel does not let go must not hold them open.  Dies with `front`.
[[noreturn]] void RunWorker(const Options& options, SizeProgress& progress, FrontLink link,
                            pid_t front);

}  // namespace ZorvEngine

#endif  // ENGINE_WORKER_H_
