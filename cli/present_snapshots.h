// The snapshots that a share has now, as a result of earlier sees them.
#ifndef CLI_PRESENT_SNAPSHOTS_H_
#define CLI_PRESENT_SNAPSHOTS_H_

#include <optional>
#include <string>
#include <vector>

#include "cli/results.h"
#include "cli/share.h"
#include "cli/table_file.h"

namespace ZorvSnapUsage {

struct PresentSnapshots {
  std::vector<Snapshot> known;  // may be in the result
  std::vector<Snapshot> other;  // cannot be in it, although their subvolume IDs may be
  bool elsewhere = false;       // the share lies on another file system than the result is of
};

// The tables that are kept of a share.
struct TablesOfShare {
  std::vector<KeptTable> here;       // of the file system that it lies on now
  std::vector<KeptTable> elsewhere;  // all of them while that is not known
  std::optional<std::string> fileSystemID;
};

// Gives up with kUnsafeRoots when somebody else may have had a hand in them.
TablesOfShare SortedTables(const std::string& share);

// None then.
TablesOfShare SafeTables(const std::string& share);

// Results name snapshots by their subvolume IDs, which are unique on one file system, and a volume
// may be made anew or exchanged. A snapshot is none of a result's when its file system made it
// after the result was stored, unless a table of that file system has the result's number for it,
// which then is the snapshot's, too: the clock was set back. None of them is when the calculation
// was of another file system. Where nobody has kept of which one it was, that is taken to be so
// when the share was calculated on another volume than it lies on, or when more of the result's
// numbers are in a table of another file system that was read since then than in any of this one.
PresentSnapshots SeenBy(const std::string& share, const Result& result,
                        const std::vector<Snapshot>& snapshots, const TablesOfShare& tables);

}  // namespace ZorvSnapUsage

#endif  // CLI_PRESENT_SNAPSHOTS_H_
