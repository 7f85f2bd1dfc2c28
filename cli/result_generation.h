// Which state of the file system a result is of.
#ifndef CLI_RESULT_GENERATION_H_
#define CLI_RESULT_GENERATION_H_

#include <optional>
#include <string>

#include "cli/results.h"
#include "cli/size_table.h"

namespace ZorvSnapUsage {

// Whether the table has the same number for each snapshot of the result, which has some.
bool HasNumbersOf(const SizeTable& table, const Result& result);

// Results do not say it. A table that is kept of the share does, and where it has the same number
// for each snapshot of the result, these are the numbers of its state, too. Nothing where there is
// no such table, or where others may have had a hand in those that there are.
std::optional<unsigned long long> GenerationOf(const std::string& share, const Result& result);

}  // namespace ZorvSnapUsage

#endif  // CLI_RESULT_GENERATION_H_
