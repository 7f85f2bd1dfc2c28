// The stepper of system calls: what it stops at, what it does there, and whom it follows.
#include "tests/support/syscall_stepper.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

constexpr char kOld[] = "/tmp/step.old";
constexpr char kNew[] = "/tmp/step.new";

// Writes the old name and renames it to the new one; 1 for a short or failed write.
int WriteAndRename() {
  const int fd = open(kOld, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const ssize_t written = write(fd, "content", 7);
  close(fd);
  if (rename(kOld, kNew) != 0) return errno;
  return written == 7 ? 0 : 1;
}

class SyscallStepperTest : public testing::Test {
 protected:
  SyscallStepperTest() {
    std::filesystem::remove(kOld);
    std::filesystem::remove(kNew);
  }

  // The road of WriteAndRename with one action at its n-th step.
  static int RunWith(size_t number, const Action& action) {
    return SyscallStepper().Run(WriteAndRename, [&](const Step& step) {
      return step.number == number ? action : Action::GoOn();
    });
  }

  static std::vector<std::string> StepsOf(const std::function<int()>& body) {
    std::vector<std::string> steps;
    SyscallStepper().Run(body, [&](const Step& step) {
      steps.push_back(std::string(NameOf(step.role)) + " " + step.text);
      return Action::GoOn();
    });
    return steps;
  }
};

}  // namespace

TEST_F(SyscallStepperTest, StopsAtEachCallThatChangesAFile) {
  EXPECT_EQ(
      (std::vector<std::string>{"caller openat(/tmp/step.old)", "caller write(/tmp/step.old, 7)",
                                "caller rename(/tmp/step.old, /tmp/step.new)"}),
      StepsOf(WriteAndRename));
  EXPECT_EQ(std::vector<std::string>{}, StepsOf([] {
              close(open("/tmp", O_RDONLY));
              return 0;
            }));
}

TEST_F(SyscallStepperTest, KilledBeforeACallItWasNotMade) {
  EXPECT_EQ(128 + SIGKILL, RunWith(3, Action::KillBefore()));
  EXPECT_EQ("content", ReadFile(kOld));
  EXPECT_FALSE(std::filesystem::exists(kNew));
}

TEST_F(SyscallStepperTest, KilledAfterACallItWasMade) {
  EXPECT_EQ(128 + SIGKILL, RunWith(3, Action::KillAfter()));
  EXPECT_EQ("content", ReadFile(kNew));
  EXPECT_FALSE(std::filesystem::exists(kOld));
}

TEST_F(SyscallStepperTest, FailedCallWasNotMadeAndGivesItsError) {
  EXPECT_EQ(EIO, RunWith(3, Action::Fail(EIO)));
  EXPECT_TRUE(std::filesystem::exists(kOld));
}

TEST_F(SyscallStepperTest, CallThatFailsAfterwardsWasMadeAndGivesItsError) {
  EXPECT_EQ(EIO, RunWith(3, Action::FailAfter(EIO)));
  EXPECT_EQ("content", ReadFile(kNew));
}

TEST_F(SyscallStepperTest, ShortenedCallDoesLess) {
  EXPECT_EQ(1, RunWith(2, Action::Shorten(3)));
  EXPECT_EQ("con", ReadFile(kNew));
}

TEST_F(SyscallStepperTest, ChosenCallsAreCountedByKind) {
  std::vector<std::string> seen;
  SyscallStepper({{SYS_openat, false}, {SYS_read, false}})
      .Run(
          [] {
            const int fd = open("/proc/self/stat", O_RDONLY);
            char bytes[8];
            return read(fd, bytes, 8) == 8 && read(fd, bytes, 8) == 8 ? 0 : 1;
          },
          [&](const Step& step) {
            seen.push_back(std::to_string(step.number) + " " + std::to_string(step.ofCall));
            return Action::GoOn();
          });
  EXPECT_EQ((std::vector<std::string>{"1 1", "2 1", "3 2"}), seen);
}

TEST_F(SyscallStepperTest, FollowsForksThreadsSessionsAndPrograms) {
  WriteScript("/tmp/step.script", "echo x > /tmp/step.new\n");
  const std::vector<std::string> steps = StepsOf([] {
    if (fork() == 0) {
      setsid();
      std::thread([] { rename(kOld, kNew); }).join();
      if (fork() == 0) {
        execl("/tmp/step.script", "/tmp/step.script", nullptr);
        _exit(127);
      }
      _exit(0);
    }
    return 0;
  });
  EXPECT_THAT(steps, testing::Contains("calculator rename(/tmp/step.old, /tmp/step.new)"));
  EXPECT_THAT(steps, testing::Contains("other openat(/tmp/step.new)"));
  EXPECT_EQ("x\n", ReadFile(kNew));  // whoever was detached has been waited for
}

TEST_F(SyscallStepperTest, EngineIsToldByItsNameAndItsWorkerByItsParent) {
  // A file in /sbin goes with the world of this program.
  WriteScript("/sbin/btrfs", "( echo worker > /tmp/step.new )\necho front > /tmp/step.old\n");
  const std::vector<std::string> steps = StepsOf([] {
    if (fork() == 0) execl("/sbin/btrfs", "/sbin/btrfs", "subvolume", nullptr);
    return 0;
  });
  std::filesystem::remove("/sbin/btrfs");
  // The kernel puts the interpreter before the name of a script: such an engine is another program.
  EXPECT_THAT(steps, testing::Contains("other openat(/tmp/step.old)"));
  std::filesystem::copy_file("/bin/bash", "/sbin/btrfs");
  const std::vector<std::string> real = StepsOf([] {
    if (fork() == 0)
      execl("/sbin/btrfs", "/sbin/btrfs", "-c",
            "( echo worker > /tmp/step.new ); echo front > /tmp/step.old", nullptr);
    return 0;
  });
  std::filesystem::remove("/sbin/btrfs");
  EXPECT_THAT(real, testing::Contains("front openat(/tmp/step.old)"));
  EXPECT_THAT(real, testing::Contains("worker openat(/tmp/step.new)"));
}

TEST_F(SyscallStepperTest, SignalsAndStopsArriveAsWithoutIt) {
  const int status = SyscallStepper().Run(
      [] {
        const pid_t child = fork();
        if (child == 0) {
          raise(SIGSTOP);
          raise(SIGTERM);
          _exit(0);
        }
        int how = 0;
        if (waitpid(child, &how, WUNTRACED) != child || !WIFSTOPPED(how)) return 1;
        kill(child, SIGCONT);
        if (waitpid(child, &how, 0) != child || !WIFSIGNALED(how)) return 2;
        return WTERMSIG(how) == SIGTERM ? 0 : 3;
      },
      [](const Step&) { return Action::GoOn(); });
  EXPECT_EQ(0, status);
}

TEST_F(SyscallStepperTest, EndOfEachProcessIsTold) {
  std::vector<std::string> ends;
  SyscallStepper stepper;
  stepper.OnEnd([&](pid_t, Role role, int status) {
    ends.push_back(std::string(NameOf(role)) + " " +
                   (WIFSIGNALED(status) ? "killed" : std::to_string(WEXITSTATUS(status))));
  });
  EXPECT_EQ(0, stepper.Run(
                   [] {
                     const pid_t child = fork();
                     if (child == 0) {
                       setsid();
                       return WriteAndRename();
                     }
                     return WaitForExit(child) == 128 + SIGKILL ? 0 : 1;
                   },
                   [](const Step&) { return Action::KillBefore(); }));
  EXPECT_EQ((std::vector<std::string>{"calculator killed", "caller 0"}), ends);
}

TEST_F(SyscallStepperTest, TreeThatDoesNotEndIsKilledAndNamed) {
  const auto hang = [] {
    if (fork() == 0) {
      setsid();
      for (;;) pause();
    }
    return 0;
  };
  try {
    (void)SyscallStepper().Run(
        hang, [](const Step&) { return Action::GoOn(); }, 1);
    FAIL() << "it ended";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr("still running: calculator "));
  }
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}
