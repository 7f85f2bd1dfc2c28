// Whether the record that names each share's calculation can be read.
#ifndef CLI_SHARE_MAP_H_
#define CLI_SHARE_MAP_H_

namespace ZorvSnapUsage {

// Gives up, saying what it is, when the map is there and is none: what is looked for in it would
// otherwise only seem not to be there.
void RequireMap();

// Before the library writes to the map. Gives up when it would refuse; says, on standard error,
// that the map is damaged: what could be read of it is written back, and nothing else.
void RequireWritableMap();

}  // namespace ZorvSnapUsage

#endif  // CLI_SHARE_MAP_H_
