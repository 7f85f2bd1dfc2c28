// What the tests of Utils share: a clean world before each case, the log, and its error tail.
#ifndef TESTS_INTL_UTILS_UTILS_FIXTURE_H_
#define TESTS_INTL_UTILS_UTILS_FIXTURE_H_

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zorvplatform/platc.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/paths.h"
#include "base/sz_list.h"
#include "base/unique_fd.h"
#include "tests/support/command.h"
#include "tests/support/platform_hook.h"
#include "tests/support/platform_values.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/waits_for_lock.h"

namespace ZorvTest {

inline constexpr char kUtilsUnit[] = "intl_utils/utils";

// A directory of the case's own, also for files that other users write.
inline constexpr char kWorkDir[] = "/tmp/utils";

// The tail after a hook's failure with `code`.
inline std::string HookTail(unsigned int code) {
  char text[64];
  snprintf(text, sizeof text, "[0x%04X tests/hook:1]", code);
  return text;
}

// Covers a directory by a small file system of its own for one scope.
class ScopedTmpfs {
 public:
  ScopedTmpfs(const std::string& dir, const std::string& options, unsigned long flags = 0)
      : dir_(dir) {
    std::filesystem::create_directories(dir_);
    if (mount("tmpfs", dir_.c_str(), "tmpfs", flags, options.c_str()) != 0)
      throw std::runtime_error("cannot mount at " + dir_);
  }
  ~ScopedTmpfs() { (void)umount2(dir_.c_str(), MNT_DETACH); }
  ScopedTmpfs(const ScopedTmpfs&) = delete;
  ScopedTmpfs& operator=(const ScopedTmpfs&) = delete;

 private:
  std::string dir_;
};

// fcntl as record locks use it.
using FcntlHook = PlatformHook<int(int, int, void*)>;

// While it stands, the first record lock is real and every later request, the unlock, fails.
class FailingUnlock {
 public:
  FailingUnlock() {
    hook_.Replace([this](int fd, int command, void* argument) {
      fd_ = fd;
      if (hook_.Calls() == 1) return hook_.Real(fd, command, argument);
      errno = ENOLCK;
      return -1;
    });
  }

  // The line of a caller whose unlock has failed.
  std::string Message() const { return "Failed to unlock fd(" + std::to_string(fd_) + ")"; }

 private:
  FcntlHook hook_{"fcntl"};
  int fd_ = -1;
};

// While it stands, every record lock request succeeds and does nothing but be remembered.
class LockRequests {
 public:
  LockRequests() {
    hook_.Replace([this](int, int command, void* lock) {
      command_ = command;
      last_ = *static_cast<struct flock*>(lock);
      return 0;
    });
  }

  int Command() const { return command_; }
  const struct flock& Last() const { return last_; }

 private:
  FcntlHook hook_{"fcntl"};
  int command_ = 0;
  struct flock last_ = {};
};

// The record lock on `path` that keeps another process from a lock of type `wanted`; its type is
// F_UNLCK when none does.
inline struct flock LockSeenByOthers(const std::string& path, short wanted = F_WRLCK) {
  int toParent[2];
  if (pipe(toParent) != 0) throw std::runtime_error("pipe");
  const UniqueFd in(toParent[0]);
  const UniqueFd out(toParent[1]);
  InChild([&] {
    const UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock = {};
    lock.l_type = wanted;
    lock.l_whence = SEEK_SET;
    if (fcntl(fd.Get(), F_GETLK, &lock) != 0) lock.l_type = -1;
    return write(out.Get(), &lock, sizeof lock) == sizeof lock ? 0 : 1;
  });
  struct flock seen = {};
  if (read(in.Get(), &seen, sizeof seen) != sizeof seen) throw std::runtime_error("read");
  return seen;
}

// Empties the library's directories and the work directory, and clears the error record.
class UtilsTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* dir : {ZorvBtrfsUsage::kLockDir, ZorvBtrfsUsage::kPersistentDir, kWorkDir})
      std::filesystem::remove_all(dir);
    std::filesystem::create_directory(kWorkDir);
    std::filesystem::permissions(kWorkDir, std::filesystem::perms(0777));
    umask(022);
    PLATCErrSetEx(0, "", 0);
  }

  // A path in the work directory.
  static std::string At(const std::string& name) { return std::string(kWorkDir) + "/" + name; }

  // Names of all entries of the work directory.
  static std::vector<std::string> Entries() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kWorkDir))
      names.push_back(entry.path().filename());
    return names;
  }

  // How many lines are exactly `message` at `priority`.
  int Logged(int priority, const std::string& message) {
    return log.CountExact(priority, kUtilsUnit, message);
  }

  SyslogCapture log;
};

}  // namespace ZorvTest

#endif  // TESTS_INTL_UTILS_UTILS_FIXTURE_H_
