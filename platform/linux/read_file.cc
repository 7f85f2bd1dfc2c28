#include "platform/linux/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"

namespace ZorvPlatform {

bool ReadToEnd(int fd, size_t most, std::string* text) {
  char piece[4096];
  ssize_t got;
  while ((got = read(fd, piece, sizeof piece)) != 0) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    text->append(piece, static_cast<size_t>(got));
    if (text->size() <= most) continue;
    errno = EFBIG;
    return false;
  }
  return true;
}

bool ReadRegularFile(int at, const char* name, int flags, size_t most, std::string* text) {
  // O_NONBLOCK: a pipe in its place is seen to be one, and not waited for.
  const UniqueFd fd(openat(at, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags));
  struct stat st;
  if (!fd.Valid() || fstat(fd.Get(), &st) != 0) return false;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return false;
  }
  return ReadToEnd(fd.Get(), most, text);
}

}  // namespace ZorvPlatform
