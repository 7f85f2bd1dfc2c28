// stats_lines.h: the lines that say what a run did.
#ifndef ENGINE_STATS_LINES_H_
#define ENGINE_STATS_LINES_H_

#include <string>
#include <vector>

#include "engine/size/exclusive_size.h"

namespace ZorvEngine {

// The lines of --stats about a run that has ended, each with its end.
std::vector<std::string> StatsLines(const SizeProgress& progress);

}  // namespace ZorvEngine

#endif  // ENGINE_STATS_LINES_H_
