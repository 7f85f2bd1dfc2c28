// What the tests of status and result files share: a clean slate, directories that refuse writes,
// other processes that hold a lock or wait for one.
#ifndef TESTS_UTILS_TASK_FILES_H_
#define TESTS_UTILS_TASK_FILES_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zorvplatform/platc.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include "base/scoped_umask.h"
#include "base/unique_fd.h"
#include "tests/support/command.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/waits_for_lock.h"
#include "zorvbtrfssnapusage/share_task_status.h"
#include "zorvbtrfssnapusage/task_status.h"

namespace ZorvTest {

// The record that every test starts with, and how it looks at the end of a line.
inline constexpr unsigned int kPlatformError = 0x1234;
inline const std::string kTail = "[0x1234 tests/utils:77]";

// The roots, written out: a changed path must fail here.
inline const std::string kRun = "/run/zorvbtrfssnapusage";
inline const std::string kLock = "/run/lock/zorvbtrfssnapusage";
inline const std::string kPersistent = "/usr/local/zorvbtrfssnapusage";

// Nothing of the library is there yet, the log is being read, the platform error is known.
class TaskFiles : public testing::Test {
 protected:
  TaskFiles() {
    for (const std::string& root : {kRun, kLock, kPersistent}) std::filesystem::remove_all(root);
    PLATCErrSetEx(kPlatformError, "tests/utils", 77);
  }

  SyslogCapture log;
};

// The fields of a status object, for tests of what the object holds.
struct OpenTaskStatus : ZorvBtrfsUsage::TaskStatus {
  using TaskStatus::lockFd;
  using TaskStatus::lockFilePath;
  using TaskStatus::statusFilePath;
  using TaskStatus::taskID;
  using TaskStatus::TaskStatus;
};

// An object and what its lines and files are called.
struct Form {
  ZorvBtrfsUsage::TaskStatus& status;
  std::string id;
  std::string file;
  std::string lock;
};

// Runs `body` with a bound object whose lines name a task, and with one whose lines do not.
inline void InBothForms(const std::function<void(const Form&)>& body) {
  {
    SCOPED_TRACE("lines with a task ID");
    ZorvBtrfsUsage::TaskStatus task;
    ASSERT_TRUE(task.Init("t1", false));
    body({task, "t1", kRun + "/task_status/t1", kLock + "/task_status/t1.lock"});
  }
  {
    SCOPED_TRACE("lines without a task ID");
    ZorvBtrfsUsage::ShareTaskStatus share;
    ASSERT_TRUE(share.Init("photos", false));
    body({share, "", kPersistent + "/share_task_status/photos",
          kLock + "/share_task_status/photos"});
  }
}

// The same with objects that are bound to nothing; an ID alone comes by a failed import.
inline void InBothInvalidForms(const std::function<void(const Form&)>& body) {
  {
    SCOPED_TRACE("lines with a task ID");
    OpenTaskStatus named;
    named.taskID = "t1";
    body({named, "t1", "", ""});
  }
  {
    SCOPED_TRACE("lines without a task ID");
    ZorvBtrfsUsage::TaskStatus unnamed;
    body({unnamed, "", "", ""});
  }
}

// Makes `dir` and lets nobody write in it, not even root, while it lives.
class ReadOnlyDir {
 public:
  explicit ReadOnlyDir(const std::string& dir) : dir_(dir) {
    std::filesystem::create_directories(dir);
    if (mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        mount(nullptr, dir.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
      throw std::runtime_error("cannot make read-only: " + dir + ": " + strerror(errno));
  }
  ~ReadOnlyDir() { umount2(dir_.c_str(), MNT_DETACH); }
  ReadOnlyDir(const ReadOnlyDir&) = delete;
  ReadOnlyDir& operator=(const ReadOnlyDir&) = delete;

 private:
  const std::string dir_;
};

// Another process; killed when it goes, if it has not ended.
class Background {
 public:
  explicit Background(const std::function<int()>& body) {
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) _exit(body());
    if (pid_ < 0) throw std::runtime_error("cannot fork");
  }
  ~Background() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    (void)WaitForExit(pid_);
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  pid_t Pid() const { return pid_; }

  int Wait() {
    const int status = WaitForExit(pid_);
    pid_ = -1;
    return status;
  }

  bool WaitsForLock() const { return ZorvTest::WaitsForLock(pid_); }

 private:
  pid_t pid_;
};

// Another process that holds the record lock of a file until it is destroyed.
class LockHolder {
 public:
  LockHolder(const std::string& path, short type)
      : ready_(MakePipe()), process_([&] { return Hold(path, type); }) {
    char byte;
    if (read(ready_.out.Get(), &byte, 1) != 1) throw std::runtime_error("no lock of " + path);
  }

 private:
  struct Pipe {
    UniqueFd out;
    UniqueFd in;
  };

  static Pipe MakePipe() {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("cannot make a pipe");
    return {UniqueFd(fds[0]), UniqueFd(fds[1])};
  }

  int Hold(const std::string& path, short type) {
    const int fd = open(path.c_str(), O_CREAT | O_RDWR, 0644);
    struct flock lock = {};
    lock.l_type = type;
    if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0 || write(ready_.in.Get(), "x", 1) != 1) return 1;
    for (;;) pause();
  }

  Pipe ready_;
  Background process_;
};

// The lock that others have on `path`, as a process that wants to write sees it: F_RDLCK, F_WRLCK,
// or F_UNLCK for none; `holder` is who has it.
inline short LockOn(const std::string& path, pid_t* holder = nullptr) {
  const int found = InChild([&] {
    const UniqueFd fd(open(path.c_str(), O_RDWR));
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    if (!fd.Valid() || fcntl(fd.Get(), F_GETLK, &lock) != 0) return 100;
    if (holder != nullptr && lock.l_type != F_UNLCK && lock.l_pid != *holder) return 101;
    return static_cast<int>(lock.l_type);
  });
  return static_cast<short>(found);
}

}  // namespace ZorvTest

#endif  // TESTS_UTILS_TASK_FILES_H_
