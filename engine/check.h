// check.h: says in words whether a run would work.
#ifndef ENGINE_CHECK_H_
#define ENGINE_CHECK_H_

#include "engine/options.h"
#include "engine/size/exclusive_size.h"
#include "engine/table_lines.h"

namespace ZorvEngine {

// Fails for anyone but root.
Status RequireRoot();

// Looks at everything that can make a run about `options` fail, short of reading it all, and gives
// a line for each finding to `sink`: "ok: ...", "note: ..." or "problem: ...", and the verdict as
// the last.  Whether a run would work.
bool CheckRun(const Options& options, SizeProgress& progress, const LineSink& sink);

}  // namespace ZorvEngine

#endif  // ENGINE_CHECK_H_
