// Names of files as the engine prints them.
#ifndef CLI_NAME_BYTES_H_
#define CLI_NAME_BYTES_H_

#include <string>

namespace ZorvSnapUsage {

// The bytes that a text stands for in which \xHH is one byte. Throws JsonError for another
// backslash.
std::string NameBytes(const std::string& text);

}  // namespace ZorvSnapUsage

#endif  // CLI_NAME_BYTES_H_
