// Deleted subvolumes that their file system is still taking apart.
#ifndef CLI_DELETIONS_H_
#define CLI_DELETIONS_H_

#include <optional>
#include <string>

namespace ZorvSnapUsage {

// How many there are on the share's file system; nothing when it does not say. Until it is done
// with them they hold what they share, which snapshots then do not hold alone: says so on standard
// error when there are some, and how to wait.
std::optional<unsigned long long> TellOfDeletions(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_DELETIONS_H_
