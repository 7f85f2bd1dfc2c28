// UniqueFd closes its descriptor exactly once and leaves errno alone.
#include "base/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace {

int OpenNull() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

}  // namespace

TEST(UniqueFd, StartsWithNone) {
  const UniqueFd none;
  EXPECT_FALSE(none.Valid());
  EXPECT_EQ(-1, none.Get());
}

TEST(UniqueFd, ClosesAtTheEndOfTheScope) {
  int fd;
  {
    const UniqueFd owner(OpenNull());
    fd = owner.Get();
    ASSERT_TRUE(IsOpen(fd));
    EXPECT_TRUE(owner.Valid());
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(UniqueFd, OwnsDescriptorZero) {
  const int saved = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  {
    const UniqueFd owner(OpenNull());
    ASSERT_EQ(0, owner.Get());
    EXPECT_TRUE(owner.Valid());
  }
  EXPECT_FALSE(IsOpen(0));
  dup2(saved, STDIN_FILENO);
  close(saved);
}

TEST(UniqueFd, ResetClosesTheOldOneAndTakesTheNew) {
  UniqueFd owner(OpenNull());
  const int first = owner.Get();
  const int second = OpenNull();
  owner.Reset(second);
  EXPECT_FALSE(IsOpen(first));
  EXPECT_EQ(second, owner.Get());
  owner.Reset();
  EXPECT_FALSE(IsOpen(second));
  EXPECT_FALSE(owner.Valid());
}

TEST(UniqueFd, ReleaseHandsTheDescriptorOver) {
  int fd;
  {
    UniqueFd owner(OpenNull());
    fd = owner.Release();
    EXPECT_FALSE(owner.Valid());
  }
  EXPECT_TRUE(IsOpen(fd));
  close(fd);
}

TEST(UniqueFd, MovingMovesTheDescriptor) {
  UniqueFd from(OpenNull());
  const int fd = from.Get();
  UniqueFd to(std::move(from));
  EXPECT_EQ(fd, to.Get());

  UniqueFd target(OpenNull());
  const int replaced = target.Get();
  target = std::move(to);
  EXPECT_EQ(fd, target.Get());
  EXPECT_FALSE(IsOpen(replaced));
  EXPECT_TRUE(IsOpen(fd));
}

TEST(UniqueFd, KeepsErrno) {
  errno = EXDEV;
  {
    const UniqueFd owner(OpenNull());
    errno = EXDEV;
  }
  EXPECT_EQ(EXDEV, errno);
  {
    const UniqueFd notOpen(999999);  // its close fails
    errno = EXDEV;
  }
  EXPECT_EQ(EXDEV, errno);
}
