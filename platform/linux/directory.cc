#include "platform/linux/directory.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ZorvPlatform {

bool ReadDir(DIR* dir, std::vector<DirEntry>* entries) {
  for (;;) {
    errno = 0;  // readdir's null is the end or an error, and only errno tells which
    const dirent* entry = readdir(dir);
    if (entry == nullptr) break;
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    entries->push_back({entry->d_name, entry->d_type});
  }
  if (errno != 0) return false;
  std::sort(entries->begin(), entries->end(),
            [](const DirEntry& a, const DirEntry& b) { return a.name < b.name; });
  return true;
}

bool ReadDir(const UniqueFd& directory, std::vector<DirEntry>* entries) {
  UniqueFd fd(openat(directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Dir dir(fd.Valid() ? fdopendir(fd.Get()) : nullptr);
  if (dir == nullptr) return false;
  (void)fd.Release();
  return ReadDir(dir.get(), entries);
}

}  // namespace ZorvPlatform
