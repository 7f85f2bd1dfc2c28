// Tables that are kept, so that the same question is not read from the disk again, and beside them
// which file systems calculations are of, for results do not say it.
//
// They lie in /var/cache/zorv-snapusage/<share>, root's alone: <file system>-<generation>-<IDs>, at
// most four of a share, and of-<task ID>. Whoever removes them loses time, and `show` the columns
// of a table, and its proof that a result is of the share's file system.
#ifndef CLI_TABLE_CACHE_H_
#define CLI_TABLE_CACHE_H_

#include <optional>
#include <string>
#include <vector>

#include "cli/table_file.h"

namespace ZorvSnapUsage {

// All give up with kUnsafeRoots when somebody else may have had a hand in what is there. A file
// that does not hold what its name says is as good as none.

// The share's table of these subvolumes in this state.
std::optional<KeptTable> FindTable(const std::string& share, const std::string& fileSystemID,
                                   unsigned long long generation,
                                   const std::vector<unsigned long long>& subvolumeIDs);

// All tables that are kept of the share.
std::vector<KeptTable> AllTables(const std::string& share);

// Keeps a table, in place of the oldest one when there are too many; the first one after the
// share's last result stays. One that cannot be kept, for want of room for example, is not: the
// system log says why.
void KeepTable(const std::string& share, const KeptTable& kept);

// Keeps which file system a calculation of the share is of, and forgets it of all others but the
// one of the last result. The system log says when it cannot be kept.
void KeepOrigin(const std::string& share, const std::string& taskID,
                const std::string& fileSystemID);

// Nothing when that is not known, as of a calculation that others than this program have begun, or
// after a power cut.
std::optional<std::string> OriginOf(const std::string& share, const std::string& taskID);

// Removes the share's tables, and all that is beside them; whether there were any.
bool RemoveTables(const std::string& share);

// The shares that tables are kept of.
std::vector<std::string> SharesWithTables();

}  // namespace ZorvSnapUsage

#endif  // CLI_TABLE_CACHE_H_
