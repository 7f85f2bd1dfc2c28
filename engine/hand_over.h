// hand_over.h: gives every other command to the real btrfs program.
#ifndef ENGINE_HAND_OVER_H_
#define ENGINE_HAND_OVER_H_

#include <string>
#include <vector>

namespace ZorvEngine {

// Replaces this process by the real btrfs with the same arguments and environment.
// `candidates` are looked at in their order; never PATH, never this program itself, under whatever
// name.  Returns only on failure: 127, with the reason on standard error.
int HandOver(char* const argv[], const std::vector<std::string>& candidates);

// Where the real program is looked for.
const std::vector<std::string>& RealBtrfsPaths();

}  // namespace ZorvEngine

#endif  // ENGINE_HAND_OVER_H_
