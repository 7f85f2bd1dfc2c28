// What a table of all snapshots adds to a share's result.
#ifndef CLI_REPORT_TABLE_H_
#define CLI_REPORT_TABLE_H_

#include <vector>

#include "cli/engine_table.h"
#include "cli/present_snapshots.h"
#include "cli/report.h"
#include "cli/share.h"
#include "cli/table_file.h"

namespace ZorvSnapUsage {

// Puts what a table says of its snapshots beside their rows, and in row order as far as it has the
// result's own numbers: from the first other one on it is of another state than the rows. A table
// that was read before the result was stored, or has a snapshot more or less than there were, is of
// another state from the start. Takes the one of `tables`, all of the share's file system, that
// goes furthest.
void AddBestTable(const std::vector<KeptTable>& tables, const PresentSnapshots& present,
                  Report& report);

// The same with the table of now, of all these snapshots of the share; none where they are not
// those of the result. One that cannot be had, or that the user does not wait for, is said on
// standard error.
void AddTableOfNow(const std::vector<Snapshot>& snapshots, Silence silence, Report& report);

// Says which rows have no table of their state, where there are tables.
void NoteRowsOfOtherState(const Report& report);

}  // namespace ZorvSnapUsage

#endif  // CLI_REPORT_TABLE_H_
