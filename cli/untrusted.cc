#include "cli/untrusted.h"

#include <fmt/format.h>

#include <fstream>

#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

// Whether the program runs in a user namespace that does not have all users: owners that it does
// not have are seen as one user there.
bool UsersAreMissing() {
  constexpr unsigned long kAll = 4294967295;
  unsigned long first = 0, outside = 0, count = kAll;
  std::ifstream map("/proc/self/uid_map");
  map >> first >> outside >> count;
  return count != kAll;
}

}  // namespace

Failure Untrusted(const std::string& path, const std::string& what, const std::string& next) {
  return Failure(kUnsafeRoots, fmt::format("{} {}", Quoted(path), what), next);
}

std::string IsA(const struct stat& status) {
  switch (status.st_mode & S_IFMT) {
    case S_IFREG:
      return "is a file";
    case S_IFDIR:
      return "is a directory";
    case S_IFLNK:
      return "is a symbolic link";
    case S_IFIFO:
      return "is a named pipe";
    case S_IFSOCK:
      return "is a socket";
    default:
      return "is a device";
  }
}

void RequireOwnedByRoot(const std::string& path, const struct stat& status) {
  if (status.st_uid == 0) return;
  throw Untrusted(path, fmt::format("belongs to user {}, not to root", status.st_uid),
                  UsersAreMissing() ? "run this as root of the machine, not of a user namespace"
                                    : kLookAndRemove);
}

}  // namespace ZorvSnapUsage
