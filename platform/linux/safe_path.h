// Following paths that lead through directories of ordinary users.
#ifndef PLATFORM_LINUX_SAFE_PATH_H
#define PLATFORM_LINUX_SAFE_PATH_H

#include <string>

#include "base/unique_fd.h"

namespace ZorvPlatform {

// The directory at `path`, which is relative to the directory `at` unless it begins with '/',
// opened with O_PATH.  Links are followed only when they are root's: who owns a directory on the
// way cannot lead elsewhere.  Invalid: errno says why, ELOOP: a link of somebody else, or too many
// of them.
UniqueFd OpenSafely(int at, const std::string& path);

// Where an open directory is, without links.  "": errno says why.
std::string RealPathOf(int fd);

}  // namespace ZorvPlatform

#endif
