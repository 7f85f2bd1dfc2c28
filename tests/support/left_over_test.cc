// A test that leaves a descriptor or a child behind fails.
#include "tests/support/left_over.h"

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

const testing::TestInfo& ThisTest() {
  return *testing::UnitTest::GetInstance()->current_test_info();
}

class LeftOver : public testing::Test {
 protected:
  LeftOver() { Listener().OnTestStart(ThisTest()); }

  testing::TestEventListener& Listener() { return listener_; }

 private:
  LeftOverIsFailure listener_{0.1};
};

}  // namespace

TEST_F(LeftOver, OpenDescriptorIsNamed) {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_NONFATAL_FAILURE(Listener().OnTestEnd(ThisTest()), "(/dev/null)");
  close(fd);
  Listener().OnTestEnd(ThisTest());
}

TEST_F(LeftOver, DescriptorThatLeadsElsewhereByNowIsNamed) {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  Listener().OnTestStart(ThisTest());
  const int other = open("/dev/zero", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(fd, dup2(other, fd));
  close(other);
  EXPECT_NONFATAL_FAILURE(Listener().OnTestEnd(ThisTest()), "(/dev/zero)");
  close(fd);
}

TEST_F(LeftOver, ChildAtWorkIsNamed) {
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  EXPECT_NONFATAL_FAILURE(Listener().OnTestEnd(ThisTest()), std::to_string(child));
  kill(child, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, WaitForExit(child));
  Listener().OnTestEnd(ThisTest());
}

TEST_F(LeftOver, ChildThatNobodyWaitsForIsNamed) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  siginfo_t ended;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT));
  EXPECT_NONFATAL_FAILURE(Listener().OnTestEnd(ThisTest()), std::to_string(child));
  EXPECT_EQ(0, WaitForExit(child));
  Listener().OnTestEnd(ThisTest());
}
