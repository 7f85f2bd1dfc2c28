#include "platform/linux/safe_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace ZorvPlatform {

namespace {

constexpr int kMostLinks = 40;  // as many as the kernel follows, path_resolution(7)

constexpr int kStep = O_PATH | O_NOFOLLOW | O_CLOEXEC;

// Takes the first component off a path that has one.
std::string TakeComponent(std::string* path) {
  const size_t end = path->find('/');
  const std::string component = path->substr(0, end);
  path->erase(0, end == std::string::npos ? end : path->find_first_not_of('/', end));
  return component;
}

// Where a link leads, when it may be followed.  "": errno says why not.
std::string TargetOf(int link, const struct stat& st) {
  char target[PATH_MAX];
  if (st.st_uid != 0) {
    errno = ELOOP;
    return "";
  }
  const ssize_t length = readlinkat(link, "", target, sizeof target);
  return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

// The beginning of the way: what an absolute path loses is its slashes.
UniqueFd Begin(int at, std::string* path) {
  const bool absolute = (*path)[0] == '/';
  if (absolute) path->erase(0, path->find_first_not_of('/'));
  return UniqueFd(openat(at, absolute ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

UniqueFd OpenSafely(int at, const std::string& path) {
  std::string rest = path;
  UniqueFd here = Begin(at, &rest);
  for (int links = 0; here.Valid() && !rest.empty();) {
    const std::string component = TakeComponent(&rest);
    UniqueFd next(openat(here.Get(), component.c_str(), kStep));
    struct stat st;
    if (!next.Valid() || fstat(next.Get(), &st) != 0) return UniqueFd();
    if (S_ISLNK(st.st_mode)) {
      const std::string target = TargetOf(next.Get(), st);
      if (target.empty() || ++links > kMostLinks) {
        if (!target.empty()) errno = ELOOP;
        return UniqueFd();
      }
      rest = target + "/" + rest;
      here = Begin(here.Get(), &rest);
    } else if (S_ISDIR(st.st_mode)) {
      here = std::move(next);
    } else {
      errno = ENOTDIR;
      return UniqueFd();
    }
  }
  return here;
}

std::string RealPathOf(int fd) {
  char path[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  return length < 0 ? "" : std::string(path, static_cast<size_t>(length));
}

}  // namespace ZorvPlatform
