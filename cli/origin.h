// Which file system a calculation is of.
#ifndef CLI_ORIGIN_H_
#define CLI_ORIGIN_H_

#include <string>

namespace ZorvSnapUsage {

// Keeps for the calculation with this task ID the file system that the share lies on now. Done
// without where that cannot be kept: whoever needs it says what is wrong there.
void RememberOrigin(const std::string& share, const std::string& taskID);

}  // namespace ZorvSnapUsage

#endif  // CLI_ORIGIN_H_
