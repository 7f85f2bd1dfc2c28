// A table as it is kept in a file.
#ifndef CLI_TABLE_FILE_H_
#define CLI_TABLE_FILE_H_

#include <time.h>

#include <string>
#include <string_view>

#include "cli/size_table.h"

namespace ZorvSnapUsage {

// A table, and what it is of.
struct KeptTable {
  std::string fileSystemID;
  time_t taken = 0;  // when it was read from the file system
  SizeTable table;
};

// One line of JSON; docs/file-formats.md has its members.
std::string TableFileText(const KeptTable& kept);

// Reads it strictly: what TableFileText does not write throws JsonError.
KeptTable ReadTableFile(std::string_view text);

}  // namespace ZorvSnapUsage

#endif  // CLI_TABLE_FILE_H_
