// Where a share lies.
#ifndef CLI_SHARE_PLACE_H_
#define CLI_SHARE_PLACE_H_

#include <optional>
#include <string>

#include "cli/file_system.h"

namespace ZorvSnapUsage {

struct SharePlace {
  std::string path;  // of its subvolume
  unsigned long long subvolumeID;
};

// Gives up unless the share exists and can be reached.
SharePlace PlaceOfShare(const std::string& share);

// The state of its file system; nothing when it cannot be told.
std::optional<FileSystemState> StateOfShare(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_SHARE_PLACE_H_
