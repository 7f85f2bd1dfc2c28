// The directories that records, locks and results lie in: made, closed to others, and checked
// before anything is done in them.
#ifndef CLI_ROOTS_H_
#define CLI_ROOTS_H_

#include <string>

namespace ZorvSnapUsage {

// Makes what is missing of the three roots and their fixed directories (owner root, mode 0700), and
// gives up with kUnsafeRoots unless each is a directory, no link, owned by root and writable by
// root alone, below directories that nobody else can exchange. The volatile roots are closed to all
// others: lock files are readable, and who may open one can hold its lock for ever.
void RequireSafeRoots();

// The same test of a directory that the library makes below a root; nothing there is right too.
void RequireSafeDirectory(const std::string& path);

// Where tables are kept; one directory for each share.
inline constexpr char kCacheRoot[] = "/var/cache/zorv-snapusage";

// The same test of the cache, where there is one.
void RequireSafeCache();

// Makes the directory, mode 0700, unless it is there, and tests it. False, with errno: it cannot be
// made.
bool MakeSafeDirectory(const std::string& path);

}  // namespace ZorvSnapUsage

#endif  // CLI_ROOTS_H_
