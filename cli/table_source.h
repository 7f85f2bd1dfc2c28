// The table of a share's snapshots: the one that is kept, as long as nothing has changed.
#ifndef CLI_TABLE_SOURCE_H_
#define CLI_TABLE_SOURCE_H_

#include <string>
#include <vector>

#include "cli/engine_table.h"
#include "cli/share.h"
#include "cli/table_cache.h"

namespace ZorvSnapUsage {

// Of all these snapshots, in this order, in the state that their file system has now. Read from the
// file system, and then kept, unless that has been done already.
KeptTable TableOfNow(const std::string& share, const std::vector<Snapshot>& snapshots,
                     Silence silence = Silence::kSpeak);

// Keeps a table of before as one of this moment: nothing has changed on its file system in between.
void KeepAsOf(Moment moment, const std::string& share, KeptTable& kept);

}  // namespace ZorvSnapUsage

#endif  // CLI_TABLE_SOURCE_H_
