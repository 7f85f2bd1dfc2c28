// What is looked at before a command does anything.
#ifndef CLI_BEGIN_WORK_H_
#define CLI_BEGIN_WORK_H_

#include <string>

namespace ZorvSnapUsage {

// Gives up unless the program runs as root, and unless nobody but root can have a hand in the
// directories and files that all shares have in common.
void BeginWork();

// BeginWork, and the same for what belongs to one share. A name that no share can have is an
// unknown share.
void BeginWorkOn(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_BEGIN_WORK_H_
