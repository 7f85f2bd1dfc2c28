// A share's result as it is shown.
#ifndef CLI_REPORT_H_
#define CLI_REPORT_H_

#include <time.h>

#include <optional>
#include <string>
#include <vector>

#include "cli/output_format.h"
#include "cli/present_snapshots.h"
#include "cli/results.h"
#include "cli/share.h"
#include "cli/size_table.h"
#include "cli/table.h"

namespace ZorvSnapUsage {

// One snapshot of the result.
struct ReportRow {
  std::string name;  // empty: nobody knows it any more
  std::optional<time_t> time;
  std::optional<bool> present = true;  // the snapshot is still there; nothing: it cannot be told
  unsigned long long subvolumeID = 0;
  unsigned long long exclusiveBytes = 0;
  unsigned long long runningTotalBytes = 0;  // this one and all before it, modulo 2^64
  std::optional<SnapshotShares> shares;      // what a table says of it
};

// The table that the rows have their shares from.
struct ReportTable {
  time_t taken;
  unsigned long long generation;
  size_t snapshots;
  std::optional<TableTotals> totals;  // nothing when it is of another state than some row
};

struct Report {
  std::string share;
  std::string taskID;
  Moment calculated;
  std::optional<unsigned long long> generation;    // that the numbers are of, as far as it is known
  std::vector<ReportRow> rows;                     // in the order of the calculation
  std::vector<std::string> missing;                // asked for, but not in the result
  std::vector<std::string> notMeasured;            // there now, not asked for
  std::optional<size_t> deletedSince;              // of the rows; nothing: it cannot be told
  bool otherFileSystem = false;                    // than the one that the result is of
  std::optional<unsigned long long> beingDeleted;  // other subvolumes, when the calculation began
  std::optional<ReportTable> table;
  size_t rowsOfOtherState = 0;  // than the best of the tables that there are
};

// Joins a result with the snapshots that there are now. `asked` are those that the calculation was
// to measure.
Report MakeReport(const std::string& share, const Result& result, const PresentSnapshots& present,
                  const std::vector<Snapshot>& asked);

// A result while nobody can tell which snapshots there are: names are those that are recorded.
Report MakeReportAlone(const std::string& share, const Result& result);

// Those of the present snapshots that the share's latest calculation was to measure, as far as it
// is the one that the result is of; else none. Those that cannot be recorded were when all others
// were.
std::vector<Snapshot> AskedFor(const std::string& share, const Result& result,
                               const PresentSnapshots& present);

// The columns of a printed report.
const Columns& ReportColumns();

// Prints to standard output; names of missing and not measured snapshots in the JSON form only.
void Print(const Report& report, const OutputFormat& format);

// What has become of one of several shares.
struct ShareEnd {
  std::string share;
  // Of its calculation, in the words of its records. Empty: none was begun, or its end is not
  // known.
  std::string state;
};

// Prints the reports of one share or of several as they come: tables below one another, lines for
// scripts with the share before them, or one JSON document in the end.
class ReportPrinter {
 public:
  ReportPrinter(const OutputFormat& format, bool several) : format_(format), several_(several) {}

  void Print(const Report& report);

  // After the last one, or where the user has ended the row; `all`: these are all that were asked
  // for.
  void Finish(const std::vector<ShareEnd>& ends, bool all);

 private:
  const OutputFormat format_;
  const bool several_;
  std::vector<Report> printed_;
};

// Gives up with the names of the missing snapshots when there are any.
void RequireComplete(const Report& report);

}  // namespace ZorvSnapUsage

#endif  // CLI_REPORT_H_
