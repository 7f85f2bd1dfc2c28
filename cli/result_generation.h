// Which state of the file system a result is of.
#ifndef CLI_RESULT_GENERATION_H_
#define CLI_RESULT_GENERATION_H_

#include <optional>
#include <string>

#include "cli/results.h"
#include "cli/size_table.h"

namespace ZorvSnapUsage {

// Of how many snapshots of the result the table says that they alone hold the same.
size_t CountNumbersOf(const SizeTable& table, const Result& result);

// Results do not say it. A table of the share's file system does that was read after the result was
// stored, and where it has the same number for each snapshot of the result, these are the numbers
// of its state, too. Nothing where there is no such table, or where others may have had a hand in
// those that there are.
std::optional<unsigned long long> GenerationOf(const std::string& share, const Result& result);

}  // namespace ZorvSnapUsage

#endif  // CLI_RESULT_GENERATION_H_
