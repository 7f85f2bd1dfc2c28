// GeneralFileLock and GeneralFileUnlock: record locks between real processes.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::kLockDir;
using ZorvBtrfsUsage::Utils;

namespace {

const std::string kLock = std::string(kLockDir) + "/some.lock";

// A process that takes the lock, says so, and holds it until told to let go.
class Holder {
 public:
  explicit Holder(const std::string& path, bool exclusive = true) {
    if (pipe(says_) != 0 || pipe(hears_) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) _exit(Hold(path, exclusive));
    close(says_[1]);
    close(hears_[0]);
  }
  ~Holder() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      WaitForExit(pid_);
    }
    close(says_[0]);
    close(hears_[1]);
  }

  pid_t Pid() const { return pid_; }

  // Blocks until it holds the lock.
  bool Holds() {
    char byte = 0;
    return read(says_[0], &byte, 1) == 1 && byte == 'h';
  }

  // Lets it unlock and end; its exit status.
  int LetGo() {
    (void)!write(hears_[1], "g", 1);
    const pid_t pid = pid_;
    pid_ = -1;
    return WaitForExit(pid);
  }

 private:
  int Hold(const std::string& path, bool exclusive) {
    alarm(60);  // ends this process should the test go wrong
    int fd = -1;
    if (!Utils::GeneralFileLock(path, exclusive, fd)) return 1;
    char byte = 'h';
    if (write(says_[1], &byte, 1) != 1 || read(hears_[0], &byte, 1) != 1) return 2;
    return Utils::GeneralFileUnlock(fd) ? 0 : 3;
  }

  int says_[2];
  int hears_[2];
  pid_t pid_;
};

class UtilsGeneralFileLock : public UtilsTest {
 protected:
  void TearDown() override { EXPECT_TRUE(Utils::GeneralFileUnlock(fd)); }

  int fd = -1;
};

class UtilsGeneralFileUnlock : public UtilsTest {};

}  // namespace

TEST_F(UtilsGeneralFileLock, ExclusiveIsAWriteLockOverTheWholeFile) {
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  const struct flock seen = LockSeenByOthers(kLock, F_RDLCK);
  EXPECT_EQ(F_WRLCK, seen.l_type);
  EXPECT_EQ(SEEK_SET, seen.l_whence);
  EXPECT_EQ(0, seen.l_start);
  EXPECT_EQ(0, seen.l_len);
  EXPECT_EQ(getpid(), seen.l_pid);
}

TEST_F(UtilsGeneralFileLock, SharedIsAReadLockOverTheWholeFile) {
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, false, fd));
  const struct flock seen = LockSeenByOthers(kLock);
  EXPECT_EQ(F_RDLCK, seen.l_type);
  EXPECT_EQ(0, seen.l_start);
  EXPECT_EQ(0, seen.l_len);
  EXPECT_EQ(getpid(), seen.l_pid);
  EXPECT_EQ(F_UNLCK, LockSeenByOthers(kLock, F_RDLCK).l_type);
}

TEST_F(UtilsGeneralFileLock, FillsInTheWholeRequest) {
  const LockRequests requests;
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  EXPECT_EQ(F_SETLKW, requests.Command());
  EXPECT_EQ(F_WRLCK, requests.Last().l_type);
  EXPECT_EQ(SEEK_SET, requests.Last().l_whence);
  EXPECT_EQ(0, requests.Last().l_start);
  EXPECT_EQ(0, requests.Last().l_len);
  EXPECT_EQ(getpid(), requests.Last().l_pid);
}

TEST_F(UtilsGeneralFileLock, OpensForTheKindOfLockAndNonBlocking) {
  for (const bool exclusive : {true, false}) {
    SCOPED_TRACE(exclusive);
    ASSERT_TRUE(Utils::GeneralFileLock(kLock, exclusive, fd));
    const int flags = fcntl(fd, F_GETFL);
    EXPECT_EQ(exclusive ? O_WRONLY : O_RDONLY, flags & O_ACCMODE);
    EXPECT_TRUE(flags & O_NONBLOCK);
    EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
    fd = -1;
  }
}

TEST_F(UtilsGeneralFileLock, MakesTheLockFileWith0644AndNeverWritesIt) {
  umask(0);
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  EXPECT_EQ(0644, ModeOf(kLock));
  EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
  fd = -1;
  EXPECT_TRUE(std::filesystem::exists(kLock));
  EXPECT_EQ("", ReadFile(kLock));

  WriteFile(kLock, "content");
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  EXPECT_EQ("content", ReadFile(kLock));
}

TEST_F(UtilsGeneralFileLock, MakesTheLockDirectoryWith0777) {
  umask(0);
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  EXPECT_EQ(0777, ModeOf(kLockDir));
}

TEST_F(UtilsGeneralFileLock, MakesTheLockDirectoryAlsoForALockElsewhere) {
  ASSERT_TRUE(Utils::GeneralFileLock(At("lock"), false, fd));
  EXPECT_TRUE(std::filesystem::is_directory(kLockDir));
}

TEST_F(UtilsGeneralFileLock, FailsWhenTheLockDirectoryCannotBeMade) {
  const ScopedTmpfs readOnly("/run/lock", "", MS_RDONLY);
  fd = -1;
  EXPECT_FALSE(Utils::GeneralFileLock(kLock, true, fd));
  EXPECT_EQ(-1, fd);
  EXPECT_EQ(1, Logged(LOG_ERR, std::string("Faild to mkdir ") + kLockDir +
                                   ", err:(Read-only file system)." + Tail()))
      << log.Dump();
}

TEST_F(UtilsGeneralFileLock, AnotherProcessMayMakeTheLockDirectoryMeanwhile) {
  std::filesystem::create_directory(kLockDir);
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  check.Replace([](const char*) { return 0; });
  EXPECT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsGeneralFileLock, MissingDirFailsAtOpen) {
  const std::string path = std::string(kLockDir) + "/missing/some.lock";
  fd = 12345;  // what was in it is lost
  EXPECT_FALSE(Utils::GeneralFileLock(path, true, fd));
  EXPECT_EQ(-1, fd);
  EXPECT_EQ(
      1, Logged(LOG_ERR, "Failed to open file [" + path + "], errmsg(No such file or directory)"))
      << log.Dump();
}

TEST_F(UtilsGeneralFileLock, MissingDirFailsAtOpenInSharedModeWithItsOwnText) {
  const std::string path = std::string(kLockDir) + "/missing/some.lock";
  EXPECT_FALSE(Utils::GeneralFileLock(path, false, fd));
  EXPECT_EQ(-1, fd);
  EXPECT_EQ(
      1, Logged(LOG_ERR, "Failed to open file [" + path + "], errmgs(No such file or directory)"))
      << log.Dump();
}

TEST_F(UtilsGeneralFileLock, ADirectoryIsNoLockFile) {
  for (const bool exclusive : {true, false}) {
    SCOPED_TRACE(exclusive);
    EXPECT_FALSE(Utils::GeneralFileLock(kWorkDir, exclusive, fd));
    EXPECT_EQ(-1, fd);
  }
}

TEST_F(UtilsGeneralFileLock, SecondExclusiveWaitsForTheFirst) {
  Holder first(kLock);
  ASSERT_TRUE(first.Holds());
  Holder second(kLock);
  ASSERT_TRUE(WaitUntil([&] { return WaitsForLock(second.Pid()); }));
  EXPECT_EQ(first.Pid(), LockSeenByOthers(kLock).l_pid);

  EXPECT_EQ(0, first.LetGo());
  EXPECT_TRUE(second.Holds());
  EXPECT_EQ(second.Pid(), LockSeenByOthers(kLock).l_pid);
  EXPECT_EQ(0, second.LetGo());
}

TEST_F(UtilsGeneralFileLock, SharedWaitsForExclusive) {
  Holder writer(kLock, true);
  ASSERT_TRUE(writer.Holds());
  Holder reader(kLock, false);
  ASSERT_TRUE(WaitUntil([&] { return WaitsForLock(reader.Pid()); }));
  EXPECT_EQ(0, writer.LetGo());
  EXPECT_TRUE(reader.Holds());
  EXPECT_EQ(0, reader.LetGo());
}

TEST_F(UtilsGeneralFileLock, ExclusiveWaitsForAllReaders) {
  Holder one(kLock, false);
  Holder other(kLock, false);
  ASSERT_TRUE(one.Holds());
  ASSERT_TRUE(other.Holds());
  Holder writer(kLock, true);
  ASSERT_TRUE(WaitUntil([&] { return WaitsForLock(writer.Pid()); }));
  EXPECT_EQ(0, one.LetGo());
  // Woken and put to wait again: for a moment it is on no list.
  EXPECT_TRUE(WaitUntil([&] { return WaitsForLock(writer.Pid()); }));
  EXPECT_EQ(0, other.LetGo());
  EXPECT_TRUE(writer.Holds());
  EXPECT_EQ(0, writer.LetGo());
}

TEST_F(UtilsGeneralFileLock, ReadersPassAWriterThatWaits) {
  Holder one(kLock, false);
  ASSERT_TRUE(one.Holds());
  Holder writer(kLock, true);
  ASSERT_TRUE(WaitUntil([&] { return WaitsForLock(writer.Pid()); }));
  alarm(60);
  EXPECT_TRUE(Utils::GeneralFileLock(kLock, false, fd));
  alarm(0);
  EXPECT_TRUE(WaitsForLock(writer.Pid()));
  EXPECT_EQ(0, one.LetGo());
  EXPECT_TRUE(WaitUntil([&] { return WaitsForLock(writer.Pid()); })) << "woken, it waits again";
}

TEST_F(UtilsGeneralFileLock, EndsWithItsProcess) {
  Holder dies(kLock);
  ASSERT_TRUE(dies.Holds());
  kill(dies.Pid(), SIGKILL);
  alarm(60);
  EXPECT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  alarm(0);
}

TEST_F(UtilsGeneralFileLock, DeadlockIsAnErrorAndLeavesTheDescriptorOpen) {
  const std::string ours = std::string(kLockDir) + "/ours.lock";
  ASSERT_TRUE(Utils::GeneralFileLock(ours, true, fd));
  int said[2];
  ASSERT_EQ(0, pipe(said));
  const pid_t other = fork();
  if (other == 0) {
    alarm(60);
    int first = -1, second = -1;
    bool ok = Utils::GeneralFileLock(kLock, true, first) && write(said[1], "h", 1) == 1;
    ok = ok && Utils::GeneralFileLock(ours, true, second);
    _exit(ok ? 0 : 1);
  }
  char byte;
  ASSERT_EQ(1, read(said[0], &byte, 1));
  ASSERT_TRUE(WaitUntil([&] { return WaitsForLock(other); }));

  int refused = -1;
  EXPECT_FALSE(Utils::GeneralFileLock(kLock, true, refused));
  EXPECT_EQ(
      1, Logged(LOG_ERR, "Failed to lock file [" + kLock + "], errmgs(Resource deadlock avoided)"))
      << log.Dump();
  EXPECT_GE(refused, 0);
  EXPECT_NE(-1, fcntl(refused, F_GETFD));
  EXPECT_TRUE(Utils::GeneralFileUnlock(refused));
  EXPECT_EQ(-1, fcntl(refused, F_GETFD));

  EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
  fd = -1;
  EXPECT_EQ(0, WaitForExit(other));
  close(said[0]);
  close(said[1]);
}

TEST_F(UtilsGeneralFileLock, WaitThatASignalInterruptsFails) {
  Holder holder(kLock);
  ASSERT_TRUE(holder.Holds());
  struct sigaction action = {}, before = {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(0, sigaction(SIGALRM, &action, &before));  // without SA_RESTART
  const itimerval often = {{0, 20000}, {0, 20000}}, never = {};
  ASSERT_EQ(0, setitimer(ITIMER_REAL, &often, nullptr));
  fd = -1;
  EXPECT_FALSE(Utils::GeneralFileLock(kLock, true, fd));
  ASSERT_EQ(0, setitimer(ITIMER_REAL, &never, nullptr));
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(1,
            Logged(LOG_ERR, "Failed to lock file [" + kLock + "], errmgs(Interrupted system call)"))
      << log.Dump();
  EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
  fd = -1;
}

TEST_F(UtilsGeneralFileLock, HeldByAnotherIsADebugLineAndLeavesTheDescriptorOpen) {
  for (const int error : {EAGAIN, EACCES}) {
    SCOPED_TRACE(strerror(error));
    log.Clear();
    {
      FcntlHook hook("fcntl");
      hook.AlwaysFails(0, error);
      EXPECT_FALSE(Utils::GeneralFileLock(kLock, true, fd));
    }
    EXPECT_EQ(1, Logged(LOG_DEBUG, "File [" + kLock + "] is already locked by another process"))
        << log.Dump();
    EXPECT_EQ(1u, log.Lines().size());
    EXPECT_GE(fd, 0);
    EXPECT_NE(-1, fcntl(fd, F_GETFD));
    EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
    fd = -1;
  }
}

TEST_F(UtilsGeneralFileUnlock, NoDescriptorIsNothingToDo) {
  FcntlHook hook("fcntl");
  EXPECT_TRUE(Utils::GeneralFileUnlock(-1));
  EXPECT_EQ(0, hook.Calls());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsGeneralFileUnlock, ReleasesAndCloses) {
  int fd = -1;
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  const int before = fd;
  EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
  EXPECT_EQ(before, fd);  // the caller's copy is the caller's to reset
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
  EXPECT_EQ(F_UNLCK, LockSeenByOthers(kLock).l_type);
}

TEST_F(UtilsGeneralFileUnlock, AsksToReleaseTheWholeFile) {
  int fd = -1;
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  const LockRequests requests;
  EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
  EXPECT_EQ(F_SETLKW, requests.Command());
  EXPECT_EQ(F_UNLCK, requests.Last().l_type);
  EXPECT_EQ(SEEK_SET, requests.Last().l_whence);
  EXPECT_EQ(0, requests.Last().l_start);
  EXPECT_EQ(0, requests.Last().l_len);
}

TEST_F(UtilsGeneralFileUnlock, HeldByAnotherIsADebugLineAndASuccess) {
  for (const int error : {EAGAIN, EACCES}) {
    SCOPED_TRACE(strerror(error));
    log.Clear();
    int fd = -1;
    ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
    {
      FcntlHook hook("fcntl");
      hook.AlwaysFails(0, error);
      EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
    }
    EXPECT_EQ(1, Logged(LOG_DEBUG, "File is already locked by another process")) << log.Dump();
    EXPECT_EQ(1u, log.Lines().size());
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
  }
}

TEST_F(UtilsGeneralFileUnlock, ADescriptorThatIsNotOpenFails) {
  int fd = -1;
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  close(fd);
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_FALSE(Utils::GeneralFileUnlock(fd));
  EXPECT_EQ(1, Logged(LOG_ERR, "Process(PID:" + std::to_string(getpid()) +
                                   ") failed to unlock, errmgs(Bad file descriptor)" +
                                   "[0x1234 tests/unit:7]"))
      << log.Dump();
}

TEST_F(UtilsGeneralFileUnlock, ClosesAlsoAfterAnError) {
  int fd = -1;
  ASSERT_TRUE(Utils::GeneralFileLock(kLock, true, fd));
  {
    FcntlHook hook("fcntl");
    hook.AlwaysFails(0, ENOLCK);
    EXPECT_FALSE(Utils::GeneralFileUnlock(fd));
  }
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}
