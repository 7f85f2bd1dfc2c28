// The share record as the platform knows it.
#ifndef PLATFORM_LINUX_SHARE_H
#define PLATFORM_LINUX_SHARE_H

#include <string>

#include "platform/linux/source.h"
#include "zorvplatform/share.h"

namespace ZorvPlatform {

// The public record with what the platform keeps behind it.
struct Share : ZORVSHARE {
  std::string nameText;  // `name` of the public record points into it
  int source = 0;        // ZORV_SHARE_SOURCE_*
  std::string place;     // what tells of it
  std::string path;      // of its subvolume
  std::string volume;    // /volumeN
  Layout layout = Layout::kNames;
  std::string snapDir;  // where its source keeps the snapshots
  std::string format;   // for Layout::kFormat, with the zone
  bool localTime = false;

  bool HasView() const { return layout != Layout::kNames; }
};

// The directory of a volume's share that holds its snapshots.
inline constexpr char kVolumeSnapDir[] = ".snapshots";

// `share` must come from ZORVShareGet.
const Share& ShareOf(const ZORVSHARE* share);

}  // namespace ZorvPlatform

#endif
