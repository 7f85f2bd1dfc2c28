// Reading a directory to its end: all entries, or an error.
#ifndef PLATFORM_LINUX_DIRECTORY_H
#define PLATFORM_LINUX_DIRECTORY_H

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace ZorvPlatform {

struct DirCloser {
  void operator()(DIR* dir) const { (void)closedir(dir); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

struct DirEntry {
  std::string name;
  unsigned char type;  // DT_*, DT_UNKNOWN where the file system does not tell
};

// Entries of an open directory but "." and "..", sorted by the bytes of their names.
// False: it could not be read to its end, errno says why; `entries` is then unspecified.
bool ReadDir(DIR* dir, std::vector<DirEntry>* entries);

// The same of a directory that is open only to be looked into, whatever was read from it before.
bool ReadDir(const UniqueFd& directory, std::vector<DirEntry>* entries);

}  // namespace ZorvPlatform

#endif
