// Giving up because something that the program relies on may be somebody else's.
#ifndef CLI_UNTRUSTED_H_
#define CLI_UNTRUSTED_H_

#include <sys/stat.h>

#include <string>

#include "cli/failure.h"

namespace ZorvSnapUsage {

// The next step where nobody can tell how a thing came there.
inline constexpr char kLookAndRemove[] = "find out who put it there, and remove it";

// The failure for a path: what is wrong with it ("is a symbolic link"), and what to do.
Failure Untrusted(const std::string& path, const std::string& what, const std::string& next);

// "is a symbolic link", "is a named pipe", ...: what stands there in place of what should.
std::string IsA(const struct stat& status);

// Gives up unless the thing at `path` is owned by root.
void RequireOwnedByRoot(const std::string& path, const struct stat& status);

}  // namespace ZorvSnapUsage

#endif  // CLI_UNTRUSTED_H_
