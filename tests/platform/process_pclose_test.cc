// Commands on pipes: closing them.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "tests/platform/platform_error.h"
#include "tests/platform/process_state.h"
#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

FILE* Shell(const char* script) {
  char* const argv[] = {const_cast<char*>("bash"), const_cast<char*>("-c"),
                        const_cast<char*>(script), nullptr};
  return PLATCPopenv("/bin/bash", "r", argv);
}

std::string FirstLine(FILE* stream) {
  char line[256] = "";
  return fgets(line, sizeof line, stream) != nullptr ? line : "";
}

volatile sig_atomic_t gAlarms = 0;
void CountAlarm(int) { gAlarms = gAlarms + 1; }

}  // namespace

TEST(PLATCPclose, GivesTheWaitStatus) {
  const struct {
    const char* name;
    const char* script;
    int status;
  } kCases[] = {
      {"ended well", "exit 0", 0},
      {"exit status 3", "exit 3", 3 << 8},
      {"exit status 255", "exit 255", 255 << 8},
      {"killed", "kill -KILL $$", SIGKILL},
      {"terminated", "kill -TERM $$", SIGTERM},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.status, PLATCPclose(Shell(c.script)));
    EXPECT_FALSE(HasChildren());
  }
}

TEST(PLATCPclose, AProgramThatIsStillWritingEndsBySigpipe) {
  FILE* stream = PLATCPopen("/usr/bin/yes", "r");
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ("y\n", FirstLine(stream));
  EXPECT_EQ(SIGPIPE, PLATCPclose(stream));
}

TEST(PLATCPclose, WaitsForAProgramThatHasClosedItsOutput) {
  FILE* stream = Shell("exec >&-; sleep 0.3; exit 9");
  EXPECT_EQ("", FirstLine(stream));
  EXPECT_EQ(9 << 8, PLATCPclose(stream));
}

TEST(PLATCPclose, SignalsDuringTheWaitDoNotEndIt) {
  const ScopedHandler handler(SIGALRM, CountAlarm);  // without SA_RESTART
  FILE* stream = Shell("exec >&-; sleep 1; exit 5");
  gAlarms = 0;
  const itimerval every20ms = {{0, 20000}, {0, 20000}};
  ASSERT_EQ(0, setitimer(ITIMER_REAL, &every20ms, nullptr));
  const int status = PLATCPclose(stream);
  const itimerval never = {};
  ASSERT_EQ(0, setitimer(ITIMER_REAL, &never, nullptr));
  EXPECT_EQ(5 << 8, status);
  EXPECT_LT(0, gAlarms);
}

TEST(PLATCPclose, IsZeroForACallerThatIgnoresSigchld) {
  const ScopedHandler ignore(SIGCHLD, SIG_IGN);
  FILE* stream = Shell("echo x; exit 7");
  EXPECT_EQ("x\n", FirstLine(stream));
  PLATCErrSetEx(0x1234, "caller", 1);
  EXPECT_EQ(0, PLATCPclose(stream));
  EXPECT_EQ(0x1234u, PLATCErrGet());
}

TEST(PLATCPclose, IsZeroForACallerThatReapsEverything) {
  const ScopedHandler reap(SIGCHLD, ReapEverything);
  FILE* stream = Shell("exit 7");
  ASSERT_TRUE(WaitUntil([] { return !HasChildren(); }));
  EXPECT_EQ(0, PLATCPclose(stream));
}

TEST(PLATCPopenv, AFailedExecIsSeenByACallerThatIgnoresOrReapsChildren) {
  char* const argv[] = {const_cast<char*>("x"), nullptr};
  for (void (*handling)(int) : {SIG_IGN, ReapEverything}) {
    const ScopedHandler handler(SIGCHLD, handling);
    ClearError();
    EXPECT_EQ(nullptr, PLATCPopenv("/etc", "r", argv));
    EXPECT_EQ(EACCES, errno);
    EXPECT_TRUE(FailedWith(0x0900));
  }
}

TEST(PLATCPclose, ASecondCloseIsRefusedAndHarmless) {
  FILE* stream = PLATCPopen("/bin/true", "r");
  EXPECT_EQ(0, PLATCPclose(stream));
  for (int i = 0; i < 3; ++i) {
    ClearError();
    EXPECT_EQ(-1, PLATCPclose(stream));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
}

TEST(PLATCPclose, ASecondCloseNeverHitsAnotherStream) {
  for (int round = 0; round < 200; ++round) {
    FILE* closed = PLATCPopen("/bin/true", "r");
    ASSERT_EQ(0, PLATCPclose(closed));
    FILE* streams[3];
    for (FILE*& stream : streams) {
      stream = PLATCPopen("/bin/echo alive", "r");
      ASSERT_NE(nullptr, stream);
      ASSERT_NE(closed, stream);
    }
    ASSERT_EQ(-1, PLATCPclose(closed));
    for (FILE* stream : streams) {
      ASSERT_EQ("alive\n", FirstLine(stream));
      ASSERT_EQ(0, PLATCPclose(stream));
    }
  }
}

TEST(PLATCPclose, AStreamOpenedOtherwiseIsRefusedAndStaysOpen) {
  FILE* file = fopen("/etc/passwd", "re");
  ASSERT_NE(nullptr, file);
  ClearError();
  EXPECT_EQ(-1, PLATCPclose(file));
  EXPECT_TRUE(FailedWith(0x0D00));
  EXPECT_NE("", FirstLine(file));
  EXPECT_EQ(0, fclose(file));
}

TEST(PLATCPclose, APointerToNothingIsNotFollowed) {
  ClearError();
  EXPECT_EQ(-1, PLATCPclose(reinterpret_cast<FILE*>(8)));
  EXPECT_TRUE(FailedWith(0x0D00));
}

TEST(PLATCPclose, TenThousandRoundsLeakNothing) {
  const std::set<int> before = OpenDescriptors();
  for (int i = 0; i < 10000; ++i) {
    FILE* stream = PLATCPopen("/bin/true", "rB");
    ASSERT_NE(nullptr, stream);
    ASSERT_EQ(0, PLATCPclose(stream));
    ASSERT_EQ(-1, PLATCPclose(stream));
  }
  EXPECT_EQ(before, OpenDescriptors());
  EXPECT_FALSE(HasChildren());
}

TEST(PLATCPclose, OpenStreamsAtExitAreNoProblem) {
  EXPECT_EQ(0, InChild([]() -> int { exit(PLATCPopen("/usr/bin/yes", "r") != nullptr ? 0 : 1); }));
}
