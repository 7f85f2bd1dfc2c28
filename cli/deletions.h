// Deleted subvolumes that their file system is still taking apart.
#ifndef CLI_DELETIONS_H_
#define CLI_DELETIONS_H_

#include <optional>
#include <string>

namespace ZorvSnapUsage {

// How many there are on the share's file system; nothing when it does not say. Until it is done
// with them they hold what they share, which snapshots then do not hold alone: says so on standard
// error when there are some, and how to wait where that helps.
std::optional<unsigned long long> TellOfDeletions(const std::string& share);

// As many, when one may have begun since the first look; the engine notes it then.
std::optional<unsigned long long> LookAgainForDeletions(const std::string& share,
                                                        std::optional<unsigned long long> before);

// Whether TellOfDeletions, when it was called last, has said that there are some.
bool DeletionsAreTold();

}  // namespace ZorvSnapUsage

#endif  // CLI_DELETIONS_H_
