// Words that messages are made of: counts, and names in commands that the user may copy.
#ifndef CLI_WORDING_H_
#define CLI_WORDING_H_

#include <string>

namespace ZorvSnapUsage {

// "1 snapshot", "3 snapshots".
std::string CountOf(unsigned long long count, const char* noun);

// "the only snapshot", "all 3 snapshots".
std::string AllOf(unsigned long long count, const char* noun);

// The name of a share in a command line, behind the command's own name: "-- -x" for one that would
// be taken for an option.
std::string ShareWord(const std::string& share);

// An option with its value in a command line: "--keep a", or "--keep=-a".
std::string OptionWords(const std::string& option, const std::string& value);

}  // namespace ZorvSnapUsage

#endif  // CLI_WORDING_H_
