// File tests and the directory listing.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/linux/directory.h"
#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/sz_list.h"
#include "zorvplatform/platc.h"

namespace {

constexpr char kUnit[] = "platform/file";

using namespace ZorvPlatform;

enum class EntryKind { kDirectory, kOther, kGone, kUnreadable };

// What the entry is, asking the file system where the directory does not tell.
EntryKind KindOf(DIR* dir, const DirEntry& entry) {
  if (entry.type == DT_DIR) return EntryKind::kDirectory;
  if (entry.type != DT_UNKNOWN) return EntryKind::kOther;
  struct stat st;
  if (fstatat(dirfd(dir), entry.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? EntryKind::kGone : EntryKind::kUnreadable;
  }
  return S_ISDIR(st.st_mode) ? EntryKind::kDirectory : EntryKind::kOther;
}

int EnumNonDirs(const char* path, PLATSZLIST* list) {
  const Dir dir(opendir(path));
  std::vector<DirEntry> entries;
  if (dir == nullptr || !ReadDir(dir.get(), &entries)) {
    return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
  }

  std::vector<std::string> names;
  for (const DirEntry& entry : entries) {
    const EntryKind kind = KindOf(dir.get(), entry);
    if (kind == EntryKind::kUnreadable) return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
    if (kind == EntryKind::kOther) names.push_back(entry.name);
  }
  if (AppendAll(PLATFORM_HERE, list, names) < 0) return -1;
  return static_cast<int>(names.size());
}

}  // namespace

int PLATCFileExist(const char* path) {
  if (path == nullptr) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  struct stat st;
  return stat(path, &st) == 0 ? 1 : 0;
}

int PLATCFileCheckDir(const char* path) {
  if (path == nullptr) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

int PLATCFileEnumDir(const char* path, int flags, PLATSZLIST** names, int type) {
  if (path == nullptr || names == nullptr || *names == nullptr || flags != PLATC_ENUM_THIS_DIR ||
      type != PLATC_ENUM_NON_DIRS) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return EnumNonDirs(path, *names); });
}
