// Where engines are, and how one gets there.
#ifndef CLI_ENGINE_PLACES_H_
#define CLI_ENGINE_PLACES_H_

#include <string_view>

#include "base/paths.h"

namespace ZorvSnapUsage {

// What calculations run.
using ZorvBtrfsUsage::kBtrfsProgram;

// What comes with this program.
inline constexpr char kOwnEngine[] = "/usr/libexec/zorv-snapusage/btrfs";

// What to do when there is no engine at this place.
inline const char* HowToGetEngine(std::string_view place) {
  return place == kOwnEngine ? "install the package zorv-snapusage again"
                             : "install zorv-btrfs-command, or the engine as /sbin/btrfs";
}

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_PLACES_H_
