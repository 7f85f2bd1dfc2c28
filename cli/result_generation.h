// Which state of the file system a result is of.
#ifndef CLI_RESULT_GENERATION_H_
#define CLI_RESULT_GENERATION_H_

#include <map>
#include <optional>
#include <string>

#include "cli/results.h"
#include "cli/size_table.h"

namespace ZorvSnapUsage {

// The bytes that each subvolume alone holds, by its ID.
using NumbersAlone = std::map<unsigned long long, unsigned long long>;

NumbersAlone AloneIn(const SizeTable& table);

// How many snapshots have the same number in both.
size_t CountNumbersOf(const Result& result, const NumbersAlone& alone);

// Results do not say it. A table of the share's file system does that was read after the result was
// stored, and where it has the same number for each snapshot of the result, these are the numbers
// of its state, too. Nothing where there is no such table, or where others may have had a hand in
// those that there are.
std::optional<unsigned long long> GenerationOf(const std::string& share, const Result& result);

}  // namespace ZorvSnapUsage

#endif  // CLI_RESULT_GENERATION_H_
