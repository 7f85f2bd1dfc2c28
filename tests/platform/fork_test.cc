// Forking a task that nobody waits for.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>

#include "base/unique_fd.h"
#include "tests/platform/platform_error.h"
#include "tests/platform/process_state.h"
#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

int Result() { return testing::Test::HasFailure() ? 1 : 0; }

// Orphans come to this process, so that it sees how detached tasks end.
class PLATCProcForkChildNoWait : public testing::Test {
 protected:
  PLATCProcForkChildNoWait() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
  ~PLATCProcForkChildNoWait() override {
    while (wait(nullptr) > 0) {
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    (void)unlink(kNote);
  }

  // Forks a task that runs `body` and ends with its result.  The pid of the task.
  static int Fork(const std::function<int()>& body) {
    const int task = ::PLATCProcForkChildNoWait();
    if (task == 0) exit(body());
    return task;
  }

  // The exit status of a task that runs `body`.
  static int RunTask(const std::function<int()>& body) {
    const int task = Fork(body);
    EXPECT_LT(0, task);
    return task > 0 ? WaitForExit(task) : -1;
  }

  // What a caller and its task tell the test through a file.
  static constexpr char kNote[] = "/tmp/forkNote";
};

std::string StatusOf(pid_t pid) { return ReadFile("/proc/" + std::to_string(pid) + "/status"); }

std::string TargetOf(pid_t pid, int fd) {
  return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/" +
                                       std::to_string(fd));
}

// A task that stays until it is killed; the destructor does that.
class WaitingTask {
 public:
  WaitingTask() : pid(::PLATCProcForkChildNoWait()) {
    if (pid == 0) {
      for (;;) pause();
    }
  }
  ~WaitingTask() {
    kill(pid, SIGKILL);
    WaitForExit(pid);
  }
  const int pid;
};

char ReadByte(int fd) {
  char byte = 0;
  ssize_t got;
  do {
    got = read(fd, &byte, 1);
  } while (got < 0 && errno == EINTR);
  return got == 1 ? byte : '\0';
}

volatile sig_atomic_t gTerms = 0;
void CountTerm(int) { gTerms = gTerms + 1; }

TEST_F(PLATCProcForkChildNoWait, PidIsThatOfTheProcessThatGoesOn) {
  const int task = Fork([] {
    WriteFile(kNote, std::to_string(getpid()));
    return 0;
  });
  ASSERT_EQ(0, WaitForExit(task));
  EXPECT_EQ(std::to_string(task), ReadFile(kNote));
}

TEST_F(PLATCProcForkChildNoWait, ExitStatusOfTheTaskIsItsOwn) {
  for (const int status : {0, 1, 9, 12, 255}) {
    EXPECT_EQ(status, RunTask([status] { return status; }));
  }
}

TEST_F(PLATCProcForkChildNoWait, TaskIsNoChildOfItsCaller) {
  EXPECT_EQ(0, InChild([] {
              const int task = Fork([] { return 0; });
              EXPECT_LT(0, task);
              EXPECT_FALSE(HasChildren());
              EXPECT_EQ(-1, waitpid(task, nullptr, 0));
              return Result();
            }));
}

TEST_F(PLATCProcForkChildNoWait, NeitherTheTaskNorTheIntermediateIsLeftAZombie) {
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  for (int i = 0; i < 50; ++i) {
    const int task = Fork([] { return 0; });
    ASSERT_LT(0, task);
    ASSERT_TRUE(WaitUntil([task] { return kill(task, 0) != 0; }));
    ASSERT_FALSE(HasChildren());
  }
}

TEST_F(PLATCProcForkChildNoWait, CallerDoesNotWaitForTheTask) {
  const WaitingTask task;  // ends only when it is killed
  EXPECT_EQ(0, kill(task.pid, 0));
}

TEST_F(PLATCProcForkChildNoWait, TaskLeadsASessionOfItsOwn) {
  const WaitingTask task;
  EXPECT_EQ(task.pid, getsid(task.pid));
  EXPECT_EQ(task.pid, getpgid(task.pid));
}

TEST_F(PLATCProcForkChildNoWait, TaskHasDevNullAsInputAndOutputAndTheCallersStandardError) {
  const WaitingTask task;
  EXPECT_EQ("/dev/null", TargetOf(task.pid, 0));
  EXPECT_EQ("/dev/null", TargetOf(task.pid, 1));
  EXPECT_EQ(TargetOf(getpid(), 2), TargetOf(task.pid, 2));
}

TEST_F(PLATCProcForkChildNoWait, InputAndOutputOfTheTaskCanBeUsed) {
  EXPECT_EQ(0, RunTask([] {
              char byte;
              if (read(STDIN_FILENO, &byte, 1) != 0) return 1;
              return write(STDOUT_FILENO, "x", 1) == 1 ? 0 : 2;
            }));
}

TEST_F(PLATCProcForkChildNoWait, WhoeverReadsTheCallersOutputSeesItsEndAtOnce) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  pid_t caller = fork();
  if (caller == 0) {
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
    const int task = Fork([] {
      sleep(60);
      return 0;
    });
    WriteFile(kNote, std::to_string(task));
    _exit(task > 0 ? 0 : 1);
  }
  close(ends[1]);
  EXPECT_EQ('\0', ReadByte(ends[0]));  // end of file, while the task goes on
  EXPECT_EQ(0, WaitForExit(caller));
  const pid_t task = std::stoi(ReadFile(kNote));
  EXPECT_EQ(0, kill(task, SIGKILL));
  WaitForExit(task);
  close(ends[0]);
}

TEST_F(PLATCProcForkChildNoWait, BufferedOutputIsWrittenOnce) {
  WriteFile(kNote, "");
  EXPECT_EQ(0, InChild([] {
              FILE* first = fopen(kNote, "ae");
              FILE* second = fopen("/tmp/forkNote2", "we");
              fputs("once", first);
              fputs("once too", second);
              const int task = Fork([] { return 0; });
              if (task < 0 || fclose(first) != 0 || fclose(second) != 0) return 1;
              return 0;
            }));
  int status;
  while (wait(&status) > 0) {
  }
  EXPECT_EQ("once", ReadFile(kNote));
  EXPECT_EQ("once too", ReadFile("/tmp/forkNote2"));
  (void)unlink("/tmp/forkNote2");
}

TEST_F(PLATCProcForkChildNoWait, TaskBlocksSigtermAndNothingElse) {
  for (const std::set<int>& callers :
       {std::set<int>{}, {SIGTERM}, {SIGINT, SIGUSR1, SIGCHLD}, {SIGTERM, SIGHUP, 40}}) {
    const ScopedMask mask(callers);
    const WaitingTask task;
    EXPECT_EQ(std::set<int>{SIGTERM}, SignalsOf(StatusOf(task.pid), "SigBlk"));
    EXPECT_EQ(callers, BlockedSignals());
  }
}

TEST_F(PLATCProcForkChildNoWait, AStopBeforeTheHandlerIsThereIsNotLost) {
  for (void (*callers)(int) : {SIG_DFL, SIG_IGN}) {
    const ScopedHandler handler(SIGTERM, callers);
    gTerms = 0;
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const int task = Fork([&ends] {
      if (ReadByte(ends[0]) != 'g') return 1;
      const ScopedHandler count(SIGTERM, CountTerm);
      if (gTerms != 0) return 2;
      const ScopedMask letIn({});
      return gTerms == 1 ? 12 : 3;
    });
    ASSERT_LT(0, task);
    for (int burst = 0; burst < 10; ++burst) EXPECT_EQ(0, kill(task, SIGTERM));
    EXPECT_EQ(1, write(ends[1], "g", 1));
    EXPECT_EQ(12, WaitForExit(task));
    close(ends[0]);
    close(ends[1]);
  }
}

TEST_F(PLATCProcForkChildNoWait, NoHandlerOfTheCallerRunsForTheIntermediate) {
  // A handler that is entered would be counted in whichever process it runs.
  const ScopedHandler count(SIGCHLD, CountTerm);
  const ScopedMask mask({SIGCHLD});
  gTerms = 0;
  EXPECT_EQ(0, RunTask([] { return static_cast<int>(gTerms); }));
}

TEST_F(PLATCProcForkChildNoWait, WorksForEveryKindOfCaller) {
  const struct {
    const char* name;
    void (*handling)(int);
    std::set<int> blocked;
  } kCases[] = {
      {"default", SIG_DFL, {}},
      {"ignores SIGCHLD", SIG_IGN, {}},
      {"reaps everything", ReapEverything, {}},
      {"blocks SIGTERM", SIG_DFL, {SIGTERM}},
      {"blocks SIGCHLD", SIG_DFL, {SIGCHLD}},
      {"reaps everything and blocks both", ReapEverything, {SIGTERM, SIGCHLD}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(0, InChild([&c] {
                const ScopedHandler handler(SIGCHLD, c.handling);
                const ScopedMask mask(c.blocked);
                for (int i = 0; i < 20; ++i) {
                  const int task = Fork([] { return 12; });
                  EXPECT_LT(0, task);
                  EXPECT_FALSE(HasChildren());
                  WriteFile(kNote, std::to_string(task));
                }
                struct sigaction now;
                EXPECT_EQ(0, sigaction(SIGCHLD, nullptr, &now));
                EXPECT_EQ(c.handling, now.sa_handler);
                EXPECT_EQ(c.blocked, BlockedSignals());
                return Result();
              }));
    EXPECT_EQ(12, WaitForExit(std::stoi(ReadFile(kNote))));
    while (wait(nullptr) > 0) {
    }
  }
}

TEST_F(PLATCProcForkChildNoWait, TaskSeesHowItsCommandsEndWhateverItsCallerDoes) {
  for (void (*handling)(int) : {SIG_IGN, ReapEverything}) {
    const int status = InChild([handling] {
      const ScopedHandler handler(SIGCHLD, handling);
      const int task = Fork([] {
        char* const argv[] = {const_cast<char*>("false"), nullptr};
        return PLATCPclose(PLATCPopenv("/bin/false", "r", argv)) == 1 << 8 ? 0 : 1;
      });
      WriteFile(kNote, std::to_string(task));
      return 0;
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, WaitForExit(std::stoi(ReadFile(kNote))));
  }
}

TEST_F(PLATCProcForkChildNoWait, TaskOwnsNoStreamOfItsParent) {
  char* const argv[] = {const_cast<char*>("bash"), const_cast<char*>("-c"),
                        const_cast<char*>("echo first; sleep 0.2; echo second; exit 3"), nullptr};
  FILE* stream = PLATCPopenv("/bin/bash", "r", argv);
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ(0, RunTask([stream] {
              ClearError();
              if (PLATCPclose(stream) != -1 || !FailedWith(0x0D00)) return 1;
              // Its own streams get other addresses, and are its own.
              for (int i = 0; i < 20; ++i) {
                FILE* own = PLATCPopen("/bin/true", "r");
                if (own == nullptr || own == stream) return 2;
                if (PLATCPclose(stream) != -1) return 3;
                if (PLATCPclose(own) != 0) return 4;
              }
              return 0;
            }));
  char line[32];
  EXPECT_STREQ("first\n", fgets(line, sizeof line, stream));
  EXPECT_STREQ("second\n", fgets(line, sizeof line, stream));
  EXPECT_EQ(3 << 8, PLATCPclose(stream));
}

TEST_F(PLATCProcForkChildNoWait, ATaskKeepsNoPipeOfItsParentOpen) {
  FILE* stream = PLATCPopen("/usr/bin/yes", "r");
  ASSERT_NE(nullptr, stream);
  const WaitingTask task;
  EXPECT_EQ(SIGPIPE, PLATCPclose(stream));  // would not come while another process could still read
}

TEST_F(PLATCProcForkChildNoWait, AStreamClosedBeforeTheForkIsStillRefusedInTheTask) {
  FILE* closed = PLATCPopen("/bin/true", "r");
  ASSERT_EQ(0, PLATCPclose(closed));
  EXPECT_EQ(0, RunTask([closed] {
              FILE* own = PLATCPopen("/bin/true", "r");
              if (own == closed || PLATCPclose(closed) != -1) return 1;
              return PLATCPclose(own);
            }));
}

TEST_F(PLATCProcForkChildNoWait, OtherDescriptorsAreKept) {
  const UniqueFd file(open(kNote, O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  EXPECT_EQ(0, RunTask([&file] { return write(file.Get(), "x", 1) == 1 ? 0 : 1; }));
  EXPECT_EQ("x", ReadFile(kNote));
}

TEST_F(PLATCProcForkChildNoWait, LeavesNoDescriptorInTheCallerAndNoneInTheTask) {
  const std::set<int> before = OpenDescriptors();
  EXPECT_EQ(0, RunTask([&before] { return OpenDescriptors() == before ? 0 : 1; }));
  EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(PLATCProcForkChildNoWait, WorksInACallerWithoutStandardDescriptors) {
  for (int closed = 1; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    EXPECT_EQ(
        0, InChild([closed] {
          for (int fd = 0; fd <= 2; ++fd)
            if (closed & (1 << fd)) close(fd);
          std::set<int> expected = OpenDescriptors();
          const int task = Fork([expected]() mutable {
            expected.insert({0, 1});
            if (OpenDescriptors() != expected) return 1;
            return TargetOf(getpid(), 0) == "/dev/null" && TargetOf(getpid(), 1) == "/dev/null" ? 12
                                                                                                : 2;
          });
          WriteFile(kNote, std::to_string(task));
          return OpenDescriptors() == expected ? 0 : 1;
        }));
    EXPECT_EQ(12, WaitForExit(std::stoi(ReadFile(kNote))));
  }
}

TEST_F(PLATCProcForkChildNoWait, AFailedForkIsReported) {
  // One process may be there: the first fork fails.  Two: the second does.
  for (const unsigned long processes : {1, 2}) {
    SCOPED_TRACE(processes);
    EXPECT_EQ(0, InChild([processes] {
                LimitProcesses(processes);
                const ScopedMask mask({SIGUSR1});
                const std::set<int> before = OpenDescriptors();
                ClearError();
                EXPECT_GT(0, ::PLATCProcForkChildNoWait());
                EXPECT_EQ(EAGAIN, errno);
                EXPECT_TRUE(FailedWith(0x2A00));
                EXPECT_EQ(std::set<int>{SIGUSR1}, BlockedSignals());
                EXPECT_EQ(before, OpenDescriptors());
                EXPECT_FALSE(HasChildren());
                return Result();
              }));
  }
}

TEST_F(PLATCProcForkChildNoWait, WithoutFreeDescriptorsItFailsAndLeavesNothing) {
  EXPECT_EQ(0, InChild([] {
              close_range(3, ~0U, 0);
              const std::set<int> before = OpenDescriptors();
              int failures = 0;
              for (unsigned long limit = 3; limit < 20; ++limit) {
                LimitDescriptors(limit);
                ClearError();
                const int task = Fork([] { return 0; });
                if (task > 0) break;
                ++failures;
                EXPECT_EQ(EMFILE, errno);
                EXPECT_TRUE(FailedWith(0x2A00));
              }
              EXPECT_LE(2, failures);
              EXPECT_GE(4, failures);
              LimitDescriptors(1024);
              EXPECT_EQ(before, OpenDescriptors());
              EXPECT_FALSE(HasChildren());
              return Result();
            }));
}

TEST_F(PLATCProcForkChildNoWait, FailedCallsCanBeFollowedByAGoodOne) {
  EXPECT_EQ(0, InChild([] {
              LimitDescriptors(3);
              close_range(3, ~0U, 0);
              if (::PLATCProcForkChildNoWait() >= 0) return 1;
              LimitDescriptors(1024);
              return RunTask([] { return 0; }) == -1 ? 0 : 2;  // -1: no child of this process
            }));
}

TEST_F(PLATCProcForkChildNoWait, ATaskCanForkATaskAndRunCommands) {
  EXPECT_EQ(0, RunTask([] {
              FILE* stream = PLATCPopen("/bin/echo x", "r");
              const int inner = ::PLATCProcForkChildNoWait();
              if (inner == 0) exit(PLATCPclose(stream) == -1 ? 0 : 1);
              char line[8];
              if (inner < 0 || fgets(line, sizeof line, stream) == nullptr) return 2;
              return PLATCPclose(stream);
            }));
  int status = 0;
  while (wait(&status) > 0) EXPECT_EQ(0, status);
}

}  // namespace
