// The share record as the platform knows it.
#ifndef PLATFORM_LINUX_SHARE_H
#define PLATFORM_LINUX_SHARE_H

#include <string>

#include "zorvplatform/share.h"

namespace ZorvPlatform {

// The public record with what the platform keeps behind it.
struct Share : ZORVSHARE {
  std::string nameText;  // `name` of the public record points into it
  std::string path;      // /volumeN/<name>
};

// `share` must come from ZORVShareGet.
const Share& ShareOf(const ZORVSHARE* share);

}  // namespace ZorvPlatform

#endif
