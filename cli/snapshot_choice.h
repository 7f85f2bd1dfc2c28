// Snapshots by the names that people know them by.
#ifndef CLI_SNAPSHOT_CHOICE_H_
#define CLI_SNAPSHOT_CHOICE_H_

#include <stddef.h>

#include <optional>
#include <string>
#include <vector>

#include "cli/share.h"

namespace ZorvSnapUsage {

// The names that the share's source has for the snapshots, one for each: of its folder, or
// snapper's number. Empty: it is the same.
std::vector<std::string> SourceNames(const std::string& share,
                                     const std::vector<Snapshot>& snapshots);

// The place of the snapshot of this name; else of the only one whose source calls it so. Nothing:
// there is none.
std::optional<size_t> FindSnapshot(const std::string& share, const std::vector<Snapshot>& snapshots,
                                   const std::string& name);

// As FindSnapshot; gives up when there is none.
size_t RequireSnapshot(const std::string& share, const std::vector<Snapshot>& snapshots,
                       const std::string& name);

}  // namespace ZorvSnapUsage

#endif  // CLI_SNAPSHOT_CHOICE_H_
