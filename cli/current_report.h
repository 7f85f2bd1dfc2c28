// A result of a share beside what is there of the share now.
#ifndef CLI_CURRENT_REPORT_H_
#define CLI_CURRENT_REPORT_H_

#include <functional>
#include <string>
#include <vector>

#include "cli/present_snapshots.h"
#include "cli/report.h"
#include "cli/results.h"

namespace ZorvSnapUsage {

struct CurrentReport {
  Report report;                    // without what tables say
  std::vector<Snapshot> snapshots;  // none while they cannot be listed
  PresentSnapshots present;         // the same ones
};

// The snapshots that the calculation of the result was to measure.
using AskedOf = std::function<std::vector<Snapshot>(const PresentSnapshots&)>;

// Results outlive their share, and are there when its snapshots cannot be listed for the moment:
// that is said on standard error.
CurrentReport ReportOfNow(const std::string& share, const Result& result,
                          const TablesOfShare& tables, const AskedOf& asked);

// Says when the share lies on another file system than the result is of.
void NoteOtherFileSystem(const Report& report);

}  // namespace ZorvSnapUsage

#endif  // CLI_CURRENT_REPORT_H_
