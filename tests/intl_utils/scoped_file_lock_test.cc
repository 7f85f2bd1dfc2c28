// ScopedFileLock holds its lock for a scope and logs on behalf of its caller.
#include "intl_utils/scoped_file_lock.h"

#include <errno.h>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::kLockDir;
using ZorvBtrfsUsage::LogSite;
using ZorvBtrfsUsage::ScopedFileLock;

namespace {

const std::string kLock = std::string(kLockDir) + "/scoped.lock";
constexpr LogSite kSite = {"tests/caller", 9};

class ScopedFileLockTest : public UtilsTest {};

}  // namespace

TEST_F(ScopedFileLockTest, HoldsForItsScope) {
  {
    const ScopedFileLock lock(kSite, kLock, ScopedFileLock::kExclusive);
    EXPECT_TRUE(lock.Held());
    EXPECT_EQ(F_WRLCK, LockSeenByOthers(kLock).l_type);
  }
  EXPECT_EQ(F_UNLCK, LockSeenByOthers(kLock).l_type);
  {
    const ScopedFileLock lock(kSite, kLock, ScopedFileLock::kShared);
    EXPECT_TRUE(lock.Held());
    EXPECT_EQ(F_RDLCK, LockSeenByOthers(kLock).l_type);
  }
  EXPECT_EQ(F_UNLCK, LockSeenByOthers(kLock).l_type);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(ScopedFileLockTest, AFailedLockIsLoggedAsFromTheCaller) {
  const std::string path = std::string(kLockDir) + "/missing/scoped.lock";
  for (const auto mode : {ScopedFileLock::kShared, ScopedFileLock::kExclusive}) {
    SCOPED_TRACE(mode);
    log.Clear();
    {
      const ScopedFileLock lock(kSite, path, mode);
      EXPECT_FALSE(lock.Held());
    }
    EXPECT_EQ(1, log.CountExact(LOG_ERR, "tests/caller",
                                "Failed to lock the file, path: " + path +
                                    ", exclusive: " + std::to_string(mode)))
        << log.Dump();
    EXPECT_EQ(0, log.Count("Failed to unlock"));
  }
}

TEST_F(ScopedFileLockTest, TheDescriptorOfAFailedLockIsClosed) {
  FcntlHook hook("fcntl");
  int fd = -1;
  hook.Replace([&](int lock, int command, void* argument) {
    fd = lock;
    if (hook.Calls() > 1) return hook.Real(lock, command, argument);
    errno = ENOLCK;
    return -1;
  });
  {
    const ScopedFileLock lock(kSite, kLock, ScopedFileLock::kExclusive);
    EXPECT_FALSE(lock.Held());
  }
  ASSERT_GE(fd, 0);
  EXPECT_EQ(-1, hook.Real(fd, F_GETFD, nullptr));
}

TEST_F(ScopedFileLockTest, AFailedUnlockIsLoggedAsFromTheCaller) {
  const FailingUnlock failing;
  { const ScopedFileLock lock(kSite, kLock, ScopedFileLock::kExclusive); }
  EXPECT_EQ(1, log.CountExact(LOG_ERR, "tests/caller", failing.Message())) << log.Dump();
}
