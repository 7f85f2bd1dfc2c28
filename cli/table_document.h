// The engine's document about subvolumes, read strictly.
#ifndef CLI_TABLE_DOCUMENT_H_
#define CLI_TABLE_DOCUMENT_H_

#include <string_view>
#include <vector>

#include "cli/json_reader.h"
#include "cli/size_table.h"

namespace ZorvSnapUsage {

// A plan as the engine says it: what comes free with each subvolume.
struct Forecast {
  unsigned long long generation = 0;
  std::vector<FreedBytes> steps;
};

// Read the document of `--format json` with a table, or with a plan, of exactly these subvolumes in
// this order. Members that are not known are passed over; a member that is missing, a format or
// version that is not known, a number that cannot be, and a document that ends too early throw
// JsonError.
SizeTable ReadTableDocument(std::string_view text, const std::vector<unsigned long long>& ids);
Forecast ReadForecastDocument(std::string_view text, const std::vector<unsigned long long>& ids);

}  // namespace ZorvSnapUsage

#endif  // CLI_TABLE_DOCUMENT_H_
