// Amounts of bytes as people write them.
#ifndef CLI_BYTE_COUNT_H_
#define CLI_BYTE_COUNT_H_

#include <optional>
#include <string>

namespace ZorvSnapUsage {

// Reads 200G, 1.5T, 512MiB (powers of 1024), 200GB (powers of 1000), or a number of bytes. Nothing:
// another form, or 2^64 bytes and more.
std::optional<unsigned long long> ParseByteCount(const std::string& text);

}  // namespace ZorvSnapUsage

#endif  // CLI_BYTE_COUNT_H_
