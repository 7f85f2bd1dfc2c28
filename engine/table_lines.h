// table_lines.h: the lines that say what a table holds.
#ifndef ENGINE_TABLE_LINES_H_
#define ENGINE_TABLE_LINES_H_

#include <functional>
#include <string>
#include <vector>

#include "engine/size/size_table.h"

namespace ZorvEngine {

// Takes a line with its end, at most PIPE_BUF bytes; false: nothing more is wanted.
using LineSink = std::function<bool(const std::string& line)>;

// Gives the lines of a plan: one for each step, then what all steps free together, then the same
// as raw bytes for each profile.  False when the sink was.
bool GiveForecastLines(const SizeTable& table, const std::vector<ForecastStep>& steps,
                       const LineSink& sink);

// Gives a line for each set of subvolumes (more when its IDs do not fit into one), a line for each
// sum of sets that are not known one by one, and a last one that says in words whether there are
// such sums.  False when the sink was.
bool GiveTableLines(const SizeTable& table, const LineSink& sink);

// Gives `line` with the IDs of members (positions in `ids`) behind it; they go on in lines that
// begin with `also` when they do not fit into one.
bool GiveWithIds(std::string line, const std::string& also, const std::vector<uint64_t>& ids,
                 const std::vector<uint32_t>& members, const LineSink& sink);

// What is said of a table that is not complete.
extern const char kIncompleteTable[];

}  // namespace ZorvEngine

#endif  // ENGINE_TABLE_LINES_H_
