// The share record as the platform knows it.
#ifndef PLATFORM_LINUX_SHARE_H
#define PLATFORM_LINUX_SHARE_H

#include <string>

#include "zorvplatform/share.h"

namespace ZorvPlatform {

// The public record with what the platform keeps behind it.
struct Share : ZORVSHARE {
  std::string nameText;  // `name` of the public record points into it
  int source;            // ZORV_SHARE_SOURCE_*
  std::string place;     // what tells of it
  std::string path;      // of its subvolume
  std::string volume;    // /volumeN
  std::string snapDir;   // where its source keeps the snapshots
};

// The directory of a volume's share that holds its snapshots.
inline constexpr char kVolumeSnapDir[] = ".snapshots";

// `share` must come from ZORVShareGet.
const Share& ShareOf(const ZORVSHARE* share);

}  // namespace ZorvPlatform

#endif
