#include "platform/linux/own_directory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace ZorvPlatform {

namespace {

// What is wrong with an open directory; null: nothing is.
const char* Complaint(const struct stat& st) {
  if (st.st_uid != 0) return " is not root's; find out who made it, and remove it";
  if ((st.st_mode & 077) != 0) return " is open to others than root; look at it, then remove it";
  return nullptr;
}

// Opens the directory `name` of `at`, which is `path` in messages, and makes it first if need be.
UniqueFd OpenOrMake(int at, const char* name, const std::string& path, std::string* why) {
  if (mkdirat(at, name, 0700) != 0 && errno != EEXIST) {
    *why = path + " cannot be made: " + strerror(errno);
    return UniqueFd();
  }
  UniqueFd fd(openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!fd.Valid() || fstat(fd.Get(), &st) != 0) {
    *why = path + " cannot be opened as a directory: " + strerror(errno);
    return UniqueFd();
  }
  const char* complaint = Complaint(st);
  if (complaint == nullptr) return fd;
  *why = path + complaint;
  fd.Reset();
  errno = EPERM;
  return fd;
}

}  // namespace

UniqueFd OpenOwnDirectory(const std::vector<std::string>& below, std::string* why) {
  std::string path = kOwnRoot;
  UniqueFd fd = OpenOrMake(AT_FDCWD, kOwnRoot, path, why);
  for (const std::string& name : below) {
    if (!fd.Valid()) break;
    path += "/" + name;
    fd = OpenOrMake(fd.Get(), name.c_str(), path, why);
  }
  return fd;
}

}  // namespace ZorvPlatform
