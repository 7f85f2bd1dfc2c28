// How a command prints what it has found, as its options say.
#ifndef CLI_OUTPUT_FORMAT_H_
#define CLI_OUTPUT_FORMAT_H_

#include <optional>
#include <string>

#include "cli/units.h"

namespace ZorvSnapUsage {

// One column to sort by.
struct SortOrder {
  std::string key;
  bool descending = false;
};

struct OutputFormat {
  bool json = false;           // one JSON document
  bool plain = false;          // a table for scripts: no header, tabs, no colour
  bool color = false;          // a terminal that wants it
  std::optional<Units> units;  // as asked for
  std::optional<SortOrder> sort;

  // People read sizes, scripts count bytes.
  Units ShownUnits() const { return units.value_or(plain ? Units::kRaw : Units::kIec); }
};

}  // namespace ZorvSnapUsage

#endif  // CLI_OUTPUT_FORMAT_H_
