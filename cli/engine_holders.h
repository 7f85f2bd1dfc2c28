// Asks the engine who keeps the bytes of a file's versions.
#ifndef CLI_ENGINE_HOLDERS_H_
#define CLI_ENGINE_HOLDERS_H_

#include <stdint.h>
#include <time.h>

#include <string>
#include <string_view>
#include <vector>

namespace ZorvSnapUsage {

// Places among the subvolumes asked about, rising.
using Places = std::vector<uint32_t>;

// What a path was in some of the subvolumes.
struct PathVersion {
  unsigned long long inode = 0;
  bool directory = false;
  unsigned long long files = 0;  // of a directory: below it
  unsigned long long size = 0;   // of all these
  unsigned long long data = 0;   // of the extents that they refer to, each whole and once
  time_t modified = 0;
  Places in;
};

// Bytes to which versions refer, by who holds them.
struct HeldData {
  bool outside = false;  // a subvolume that was not asked about holds them, too
  unsigned long long data = 0;
  Places by;
};

struct PathHolders {
  unsigned long long generation = 0;
  std::vector<PathVersion> versions;  // in the order in which the subvolumes were asked about
  Places without;                     // where there is no such path
  Places nested;                      // of these, where it leads into another subvolume
  std::vector<HeldData> groups;
};

// The engine looks `path`, from the root of a subvolume, up in each of these, in the state that the
// file system of `directory` has now. Gives up, with the engine's reason and what to do about it,
// when there is no answer, or one that cannot be read.
PathHolders AskForHolders(const std::string& directory, const std::string& path,
                          const std::vector<unsigned long long>& subvolumeIDs);

// Reads the engine's document; throws JsonError.
PathHolders ReadHoldersDocument(std::string_view text,
                                const std::vector<unsigned long long>& subvolumeIDs);

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_HOLDERS_H_
