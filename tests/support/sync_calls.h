// Notes in which order files are brought to the disk and renamed.
#ifndef TESTS_SUPPORT_SYNC_CALLS_H_
#define TESTS_SUPPORT_SYNC_CALLS_H_

#include <errno.h>
#include <fcntl.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/platform_hook.h"

namespace ZorvTest {

// While it stands: "sync PATH", "write out PATH" and "rename to PATH", each with what was asked
// for before it was done. The six letters of a temporary file are "XXXXXX".
class SyncCalls {
 public:
  SyncCalls() {
    fsync_.Replace([this](int fd) {
      const std::string path = PathOf(fd);
      events_.push_back("sync " + path);
      if (failing_ != path) return fsync_.Real(fd);
      errno = error_;
      return -1;
    });
    writeOut_.Replace([this](int fd, off64_t offset, off64_t count, unsigned int flags) {
      const std::string path = PathOf(fd);
      const bool waits = (flags & SYNC_FILE_RANGE_WAIT_AFTER) != 0;
      events_.push_back((waits ? "write out " : "begin to write out ") + path);
      if (failing_ != path) return writeOut_.Real(fd, offset, count, flags);
      errno = error_;
      return -1;
    });
    rename_.Replace([this](const char* from, const char* to) {
      events_.push_back(std::string("rename to ") + to);
      return rename_.Real(from, to);
    });
  }

  // From here on bringing this path to the disk fails.
  void Fail(const std::string& path, int error) {
    failing_ = path;
    error_ = error;
  }

  // What was done since the last call.
  std::vector<std::string> Events() { return std::exchange(events_, {}); }

 private:
  static std::string PathOf(int fd) {
    std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
    const size_t letters = path.size() - 6;
    if (path.size() > 7 && path[letters - 1] == '.') path.replace(letters, 6, "XXXXXX");
    return path;
  }

  PlatformHook<int(int)> fsync_{"fsync"};
  PlatformHook<int(int, off64_t, off64_t, unsigned int)> writeOut_{"sync_file_range"};
  PlatformHook<int(const char*, const char*)> rename_{"rename"};
  std::vector<std::string> events_;
  std::string failing_;
  int error_ = 0;
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_SYNC_CALLS_H_
