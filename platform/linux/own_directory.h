// The platform's own directories below /run: root's alone, made when they are first needed.
#ifndef PLATFORM_LINUX_OWN_DIRECTORY_H
#define PLATFORM_LINUX_OWN_DIRECTORY_H

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace ZorvPlatform {

inline constexpr char kOwnRoot[] = "/run/zorvplatform";

// Opens kOwnRoot, or what lies below it by these names; makes what is missing, mode 0700.  Invalid:
// `why` says in words what is in the way, and errno; when something else stands there, or what
// others than root can write or read (EPERM), it has not been changed.
UniqueFd OpenOwnDirectory(const std::vector<std::string>& below, std::string* why);

}  // namespace ZorvPlatform

#endif
