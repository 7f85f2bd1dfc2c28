#include "cli/options.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "cli/failure.h"
#include "cli/nearest.h"
#include "cli/terminal.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

// A text that is empty, by a variable that was never set for one, would be taken for no option.
std::string RefuseEmptyTime(const std::string& text) {
  return text.empty() ? "a time is expected" : "";
}

CLI::Option* AddUnits(CLI::App& command, OutputFormat& format, const char* name, Units units,
                      const char* help) {
  return command.add_flag_callback(
      name, [&format, units] { format.units = units; }, help);
}

std::vector<std::string> KeysOf(const Columns& columns) {
  std::vector<std::string> keys;
  for (const Column& column : columns) keys.push_back(column.key);
  return keys;
}

// "data, files, path"
std::string ListOf(const Columns& columns) {
  return fmt::format("{}", fmt::join(KeysOf(columns), ", "));
}

// "there is no column 'x', did you mean 'y'?"
std::string NoColumn(const std::string& key, const Columns& columns) {
  return fmt::format("there is no column {}, {}", Quoted(key),
                     DidYouMean(key, KeysOf(columns), "there are " + ListOf(columns)));
}

SortOrder ParseSort(const std::string& text, const Columns& columns) {
  SortOrder order;
  order.descending = text[0] == '-';
  order.key = text.substr(text[0] == '-' || text[0] == '+' ? 1 : 0);
  if (FindColumn(columns, order.key) != nullptr) return order;
  throw CLI::ValidationError("--sort", NoColumn(order.key, columns));
}

}  // namespace

void AddShareArgument(CLI::App& command, std::string& share) {
  command.add_option("SHARE", share, "Name of the share")->type_name("")->required();
}

void AddShareChoice(CLI::App& command, ShareChoice& choice, const char* all) {
  CLI::Option* const names =
      command.add_option("SHARE", choice.names, "Names of shares")->type_name("");
  command.add_flag("--all", choice.all, all)->excludes(names);
}

void AddSelection(CLI::App& command, Selection& selection) {
  command.add_option("--snapshot", selection.names, "Only this snapshot; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command.add_option("--since", selection.since, "Only snapshots of this time or later")
      ->type_name("TIME")
      ->check(RefuseEmptyTime);
  command
      .add_option("--until", selection.until, "Only those of this time (day, minute) or earlier")
      ->type_name("TIME")
      ->check(RefuseEmptyTime);
}

void AddOutputFormat(CLI::App& command, OutputFormat& format, const Columns& columns) {
  format.color = WantsColor(STDOUT_FILENO);
  command.add_flag("-H", format.plain, "For scripts: no header, tabs, bytes");
  CLI::Option* const raw = AddUnits(command, format, "--raw", Units::kRaw, "Bytes");
  CLI::Option* const iec =
      AddUnits(command, format, "--iec", Units::kIec, "Powers of 1024: KiB, MiB (default)");
  CLI::Option* const si =
      AddUnits(command, format, "--si", Units::kSi, "Powers of 1000: kB, MB, GB");
  raw->excludes(iec)->excludes(si);
  iec->excludes(si);
  command
      .add_option_function<std::string>(
          "--format", [&format](const std::string& name) { format.json = name == "json"; },
          "table or json (always bytes)")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"table", "json"}).description(""));
  command
      .add_option_function<std::string>(
          "--sort",
          [&format, columns](const std::string& text) { format.sort = ParseSort(text, columns); },
          "Sort (-: backwards) by " + ListOf(columns))
      ->type_name("[-]COLUMN");
}

void RequireColumn(const OutputFormat& format, const Columns& columns) {
  if (!format.sort || FindColumn(columns, format.sort->key) != nullptr) return;
  throw Failure(kWrongUsage, "--sort: " + NoColumn(format.sort->key, columns), "name one of those");
}

}  // namespace ZorvSnapUsage
