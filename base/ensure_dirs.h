// Makes the library's directories on demand.
#ifndef BASE_ENSURE_DIRS_H_
#define BASE_ENSURE_DIRS_H_

#include <initializer_list>
#include <string>

#include "base/log.h"

namespace ZorvBtrfsUsage {

// Makes each directory that is not there yet, in the given order, with mode 0777 under the
// process's umask; parents are not made. False: one could not be made, logged as from `site`.
bool EnsureDirs(LogSite site, std::initializer_list<std::string> dirs);

}  // namespace ZorvBtrfsUsage

#endif  // BASE_ENSURE_DIRS_H_
