// Options that several commands have.
#ifndef CLI_OPTIONS_H_
#define CLI_OPTIONS_H_

#include <string>

#include "cli/launch.h"
#include "cli/output_format.h"
#include "cli/share_choice.h"
#include "cli/table.h"

namespace CLI {
class App;
}

namespace ZorvSnapUsage {

// SHARE
void AddShareArgument(CLI::App& command, std::string& share);

// [SHARE... | --all]; `all` says what --all means.
void AddShareChoice(CLI::App& command, ShareChoice& choice, const char* all);

// [--snapshot NAME]... [--since T] [--until T], for the shares that are chosen.
void AddSelection(CLI::App& command, Selection& selection);

// [-H] [--raw | --iec | --si] [--format table|json] [--sort=[+-]COLUMN], for a command that prints
// a table of these columns. Sets `format.color` as well, by what standard output is.
void AddOutputFormat(CLI::App& command, OutputFormat& format, const Columns& columns);

// Gives up when the table that is printed has no such column as is sorted by, for a command that
// prints one of several.
void RequireColumn(const OutputFormat& format, const Columns& columns);

}  // namespace ZorvSnapUsage

#endif  // CLI_OPTIONS_H_
