// holder_lines.h: the lines that say who holds the data of a path.
#ifndef ENGINE_HOLDER_LINES_H_
#define ENGINE_HOLDER_LINES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "engine/size/holder_report.h"
#include "engine/table_lines.h"

namespace ZorvEngine {

// When a version was modified: seconds since the epoch, a point and nine digits.
std::string ModifiedText(const VersionNumbers& version);

// Gives two lines for each version, one for the subvolumes without the path when there are such,
// and one for each group of holders (each more when its IDs do not fit), and a last one.  False
// when the sink was.
bool GiveHolderLines(const HolderReport& report, const std::vector<uint64_t>& ids,
                     const LineSink& sink);

}  // namespace ZorvEngine

#endif  // ENGINE_HOLDER_LINES_H_
