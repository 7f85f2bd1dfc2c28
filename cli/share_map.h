// The record that names each share's calculation: whether it can be read, what it says of volumes,
// and one entry taken out of it.
#ifndef CLI_SHARE_MAP_H_
#define CLI_SHARE_MAP_H_

#include <optional>
#include <string>

namespace ZorvSnapUsage {

// Gives up, saying what it is, when the map is there and is none: what is looked for in it would
// otherwise only seem not to be there.
void RequireMap();

// Before the library writes to the map. Gives up when it would refuse; says, on standard error,
// that the map is damaged: what could be read of it is written back, and nothing else.
void RequireWritableMap();

// The volume of the share's latest calculation, "/volume1", when it is not there now: then the
// share may be there again when it is mounted. Nothing when it is there, or when nothing is
// recorded.
std::optional<std::string> MissingVolumeOf(const std::string& share);

// The volume of the share's latest calculation, "/volume1"; nothing when none is recorded.
std::optional<std::string> RecordedVolumeOf(const std::string& share);

// Takes the share's entry out and leaves all others as they are: the library also takes out those
// of shares that it does not find.
void RemoveFromMap(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_SHARE_MAP_H_
