// A table as it is kept in a file.
#ifndef CLI_TABLE_FILE_H_
#define CLI_TABLE_FILE_H_

#include <string>
#include <string_view>

#include "cli/moment.h"
#include "cli/size_table.h"

namespace ZorvSnapUsage {

// A table, and what it is of.
struct KeptTable {
  std::string fileSystemID;
  Moment taken;  // its state is of then or later
  SizeTable table;

  // Whether its state is of this moment or later. One from the future may be of any: the clock was
  // set back since.
  bool IsSince(Moment moment) const { return taken >= moment && taken <= Moment::Now(); }
};

// One line of JSON; docs/file-formats.md has its members.
std::string TableFileText(const KeptTable& kept);

// Reads it strictly: what TableFileText does not write throws JsonError.
KeptTable ReadTableFile(std::string_view text);

}  // namespace ZorvSnapUsage

#endif  // CLI_TABLE_FILE_H_
