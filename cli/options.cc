#include "cli/options.h"

#include <CLI/CLI.hpp>

namespace ZorvSnapUsage {
namespace {

// A text that is empty, by a variable that was never set for one, would be taken for no option.
std::string RefuseEmptyTime(const std::string& text) {
  return text.empty() ? "a time is expected" : "";
}

}  // namespace

void AddShareArgument(CLI::App& command, std::string& share) {
  command.add_option("SHARE", share, "Name of the share")->required();
}

void AddSelection(CLI::App& command, Selection& selection) {
  AddShareArgument(command, selection.share);
  command.add_option("SNAPSHOT", selection.names, "Names of snapshots (default: all of the share)");
  command.add_option("--since", selection.since, "Only snapshots of this time or later")
      ->type_name("TIME")
      ->check(RefuseEmptyTime);
  command
      .add_option("--until", selection.until,
                  "Only snapshots of this time or earlier; without seconds the whole minute, "
                  "without a time the whole day")
      ->type_name("TIME")
      ->check(RefuseEmptyTime);
}

void AddReportFormat(CLI::App& command, ReportFormat& format) {
  command.add_flag("--raw", format.raw, "Bytes instead of sizes for people");
  command
      .add_option_function<std::string>(
          "--format", [&format](const std::string& name) { format.json = name == "json"; },
          "table, or json (always in bytes)")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"table", "json"}));
}

}  // namespace ZorvSnapUsage
