// Asks the engine what snapshots hold together, and what comes free when some go.
#ifndef CLI_ENGINE_TABLE_H_
#define CLI_ENGINE_TABLE_H_

#include <string>
#include <vector>

#include "cli/size_table.h"
#include "cli/table_document.h"

namespace ZorvSnapUsage {

// Whether somebody is told that it takes a while.
enum class Silence { kSpeak, kQuiet };

// The engine reads the state that the file system of `directory` has now; that may take minutes,
// and it may wait for other runs, which is said on standard error. Each gives up, with the engine's
// reason and what to do about it, when there is no answer, or one that cannot be read.

// The table of these subvolumes. Where there are too many sets of them, some are summed up.
SizeTable AskForTable(const std::string& directory,
                      const std::vector<unsigned long long>& subvolumeIDs,
                      Silence silence = Silence::kSpeak);

// What comes free when these are deleted in this order; always exact.
Forecast AskForForecast(const std::string& directory,
                        const std::vector<unsigned long long>& subvolumeIDs);

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_TABLE_H_
