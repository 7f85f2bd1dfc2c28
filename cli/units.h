// Amounts of bytes as people or programs read them.
#ifndef CLI_UNITS_H_
#define CLI_UNITS_H_

#include <string>

namespace ZorvSnapUsage {

// Powers of 1024 (KiB), powers of 1000 (kB), or the bare number of bytes.
enum class Units { kIec, kSi, kRaw };

// 1023 B, 1.25 GiB, 1.34 GB, 1342177280: three significant digits or more where there is a unit.
std::string BytesText(unsigned long long bytes, Units units);

}  // namespace ZorvSnapUsage

#endif  // CLI_UNITS_H_
