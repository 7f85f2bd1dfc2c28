// Options that several commands have.
#ifndef CLI_OPTIONS_H_
#define CLI_OPTIONS_H_

#include <string>

#include "cli/launch.h"
#include "cli/report.h"

namespace CLI {
class App;
}

namespace ZorvSnapUsage {

// SHARE
void AddShareArgument(CLI::App& command, std::string& share);

// SHARE [SNAPSHOT...] [--since T] [--until T]
void AddSelection(CLI::App& command, Selection& selection);

// [--raw] [--format table|json]
void AddReportFormat(CLI::App& command, ReportFormat& format);

}  // namespace ZorvSnapUsage

#endif  // CLI_OPTIONS_H_
