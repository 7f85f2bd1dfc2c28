// What a table of all snapshots adds to a share's result.
#ifndef CLI_REPORT_TABLE_H_
#define CLI_REPORT_TABLE_H_

#include "cli/report.h"
#include "cli/table_file.h"

namespace ZorvSnapUsage {

// Puts what the table says of its snapshots beside their rows.
void AddTable(const KeptTable& kept, Report& report);

// The same with the newest table that is kept of the share, if there is one.
void AddNewestTable(Report& report);

}  // namespace ZorvSnapUsage

#endif  // CLI_REPORT_TABLE_H_
