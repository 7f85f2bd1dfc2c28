// Whether a file system that the records, locks or results lie on is full.
#ifndef CLI_ROOM_H_
#define CLI_ROOM_H_

#include <string>

namespace ZorvSnapUsage {

// Says which file system can take nothing more, and what to do about it: the next step of a failure
// that nobody has another reason for. Empty when all can.
std::string NextWhereFull();

}  // namespace ZorvSnapUsage

#endif  // CLI_ROOM_H_
