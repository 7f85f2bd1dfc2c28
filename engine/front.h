// front.h: the process that owns standard output.
#ifndef ENGINE_FRONT_H_
#define ENGINE_FRONT_H_

#include <string>

#include "engine/options.h"

namespace ZorvEngine {

// Starts the worker and prints for it: progress while it works, its result or the reason why there
// is none.  An engine that dies must never look like one that found nothing: a worker that ends
// without result is a failure that is said.  Standard error is never waited for: what it does not
// take at once is written as room comes, or given up when there is none at the end.  When the
// reader of standard output has gone, kills the worker and returns at once, without waiting for one
// that the kernel does not let go.  Returns the exit status: 0 with an exact result, else 1.
// Expects that SIGPIPE and SIGXFSZ are ignored.
int RunFront(const Options& options);

// Says a failure where users look and where programs look: on standard error, and as the last line
// of standard output.  Returns 1.
int SayFailure(const std::string& reason);

}  // namespace ZorvEngine

#endif  // ENGINE_FRONT_H_
