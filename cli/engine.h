// The command that calculates.
#ifndef CLI_ENGINE_H_
#define CLI_ENGINE_H_

namespace ZorvSnapUsage {

// Gives up unless /sbin/btrfs is there and says of itself that it calculates exclusive sizes: the
// stock program has no such command, and what it prints instead would be an empty result.
void RequireEngine();

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_H_
