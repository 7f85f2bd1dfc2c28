// What a table of all snapshots adds to a share's result.
#ifndef CLI_REPORT_TABLE_H_
#define CLI_REPORT_TABLE_H_

#include <vector>

#include "cli/engine_table.h"
#include "cli/report.h"
#include "cli/share.h"
#include "cli/table_file.h"

namespace ZorvSnapUsage {

// Puts what the table says of its snapshots beside their rows.
void AddTable(const KeptTable& kept, Report& report);

// The same with the newest table that is kept of the share as it is on its file system, if there is
// one.
void AddNewestTable(Report& report);

// The same with the table of now, of all these snapshots of the share. One that cannot be had, or
// that the user does not wait for, is said on standard error; the newest that is kept then has to
// do.
void AddTableOfNow(const std::vector<Snapshot>& snapshots, Silence silence, Report& report);

}  // namespace ZorvSnapUsage

#endif  // CLI_REPORT_TABLE_H_
