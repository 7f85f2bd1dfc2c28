// The command that calculates and answers questions.
#ifndef CLI_ENGINE_H_
#define CLI_ENGINE_H_

namespace ZorvSnapUsage {

// Gives up unless /sbin/btrfs, which calculations run, is there and says of itself that it
// calculates exclusive sizes: the stock program has no such command, and what it prints instead
// would be an empty result.
void RequireEngine();

// Which engine to ask what needs no calculation: /sbin/btrfs where that says it is one, else the
// one that comes with this program. Gives up when neither is.
const char* FindEngine();

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_H_
