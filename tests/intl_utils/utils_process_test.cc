// PIDStringGet, UUIDGen and ProcessKill: identifiers and real processes.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::kUuidgenProgram;
using ZorvBtrfsUsage::Utils;

namespace {

using CloseHook = PlatformHook<decltype(PLATCPclose)>;
using KillHook = PlatformHook<int(pid_t, int)>;

class UtilsPIDStringGet : public UtilsTest {};

// Keeps the world's own uuidgen and puts it back.
class UtilsUUIDGen : public UtilsTest {
 protected:
  void SetUp() override {
    UtilsTest::SetUp();
    std::filesystem::copy_file(kUuidgenProgram, At("uuidgen"));
  }
  void TearDown() override {
    std::filesystem::remove_all(kUuidgenProgram);
    std::filesystem::copy_file(At("uuidgen"), kUuidgenProgram);
  }

  // The program prints and ends as `script` says.
  void Becomes(const std::string& script) {
    std::filesystem::remove_all(kUuidgenProgram);
    WriteScript(kUuidgenProgram, script);
  }

  // UUIDGen fails, with this error of its own, and leaves the text alone.
  void ExpectFailure() {
    EXPECT_FALSE(Utils::UUIDGen(uuid));
    EXPECT_EQ("old", uuid);
    EXPECT_EQ(0x2A00u, PLATCErrGet());
    EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
  }

  std::string uuid = "old";
};

// A process to be killed.
class UtilsProcessKill : public UtilsTest {
 protected:
  void TearDown() override {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    WaitForExit(pid);
  }

  void Start() {
    pid = fork();
    if (pid == 0) {
      for (;;) pause();
    }
    ASSERT_GT(pid, 0);
  }

  int End() {
    const int status = WaitForExit(pid);
    pid = -1;
    return status;
  }

  pid_t pid = -1;
};

}  // namespace

TEST_F(UtilsPIDStringGet, IsTheProcessIDInDecimal) {
  EXPECT_EQ(std::to_string(getpid()), Utils::PIDStringGet());
  EXPECT_EQ(0, InChild([] { return Utils::PIDStringGet() == std::to_string(getpid()) ? 0 : 1; }));
}

TEST_F(UtilsUUIDGen, GivesANewUuidEachTime) {
  std::set<std::string> seen;
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(Utils::UUIDGen(uuid));
    EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}")))
        << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(5u, seen.size());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsUUIDGen, StartsUuidgenForReading) {
  PlatformHook<decltype(PLATCPopen)> open("PLATCPopen");
  std::string command, mode;
  open.Replace([&](const char* c, const char* m) {
    command = c;
    mode = m;
    return open.Real(c, m);
  });
  EXPECT_TRUE(Utils::UUIDGen(uuid));
  EXPECT_EQ("/usr/bin/uuidgen", command);
  EXPECT_EQ("r", mode);
}

TEST_F(UtilsUUIDGen, ClosesTheSameStreamTwice) {
  CloseHook close("PLATCPclose");
  std::vector<FILE*> streams;
  std::vector<int> results;
  close.Replace([&](FILE* stream) {
    streams.push_back(stream);
    results.push_back(close.Real(stream));
    return results.back();
  });
  EXPECT_TRUE(Utils::UUIDGen(uuid));
  ASSERT_EQ(2u, streams.size());
  EXPECT_EQ(streams[0], streams[1]);
  EXPECT_EQ((std::vector<int>{0, -1}), results);
}

TEST_F(UtilsUUIDGen, WhiteSpaceAroundIsRemoved) {
  Becomes("printf ' \\t some-id \\r\\n'");
  EXPECT_TRUE(Utils::UUIDGen(uuid));
  EXPECT_EQ("some-id", uuid);
}

TEST_F(UtilsUUIDGen, OnlyTheFirstLineIsRead) {
  Becomes("printf 'first\\nsecond\\n'");
  EXPECT_TRUE(Utils::UUIDGen(uuid));
  EXPECT_EQ("first", uuid);
}

TEST_F(UtilsUUIDGen, ALineWithoutEndIsALine) {
  Becomes("printf no-end");
  EXPECT_TRUE(Utils::UUIDGen(uuid));
  EXPECT_EQ("no-end", uuid);
}

TEST_F(UtilsUUIDGen, ALongLineIsCutAt1023Characters) {
  Becomes("printf 'x%.0s' {1..2000}");
  EXPECT_TRUE(Utils::UUIDGen(uuid));
  EXPECT_EQ(std::string(1023, 'x'), uuid);
}

TEST_F(UtilsUUIDGen, ItsExitStatusDoesNotMatter) {
  Becomes("echo some-id; exit 3");
  EXPECT_TRUE(Utils::UUIDGen(uuid));
  EXPECT_EQ("some-id", uuid);
}

TEST_F(UtilsUUIDGen, MissingProgramFails) {
  std::filesystem::remove(kUuidgenProgram);
  CloseHook close("PLATCPclose");
  ExpectFailure();
  EXPECT_EQ(0, close.Calls());
}

TEST_F(UtilsUUIDGen, AProgramThatCannotRunFails) {
  Becomes("echo some-id");
  std::filesystem::permissions(kUuidgenProgram, std::filesystem::perms(0644));
  ExpectFailure();
}

TEST_F(UtilsUUIDGen, NoOutputFailsAfterOneClose) {
  Becomes("exit 0");
  CloseHook close("PLATCPclose");
  ExpectFailure();
  EXPECT_EQ(1, close.Calls());
}

TEST_F(UtilsUUIDGen, FailedCloseFailsWithoutASecond) {
  CloseHook close("PLATCPclose");
  close.Replace([&](FILE* stream) {
    (void)close.Real(stream);
    return -1;
  });
  ExpectFailure();
  EXPECT_EQ(1, close.Calls());
}

TEST_F(UtilsUUIDGen, FailedTrimFailsAfterTheSecondClose) {
  CloseHook close("PLATCPclose");
  PlatformHook<decltype(PLATCStrTrimSpace)> trim("PLATCStrTrimSpace");
  trim.AlwaysFails();
  EXPECT_FALSE(Utils::UUIDGen(uuid));
  EXPECT_EQ("old", uuid);
  EXPECT_EQ(2, close.Calls());
}

TEST_F(UtilsUUIDGen, ThereIsNoRetry) {
  Becomes("echo run >> /tmp/utils/runs; exit 1");
  ExpectFailure();
  EXPECT_EQ("run\n", ReadFile("/tmp/utils/runs"));
}

TEST_F(UtilsProcessKill, SendsTheSignal) {
  Start();
  EXPECT_EQ(0, Utils::ProcessKill(pid, SIGTERM));
  const std::string line =
      "kill PID (" + std::to_string(pid) + ") with the signal (" + std::to_string(SIGTERM) + ")";
  EXPECT_EQ(1, Logged(LOG_DEBUG, line)) << log.Dump();
  EXPECT_EQ(128 + SIGTERM, End());
}

TEST_F(UtilsProcessKill, AProcessThatHasEndedIsNothingToKill) {
  Start();
  kill(pid, SIGKILL);
  const pid_t gone = pid;
  End();
  KillHook hook("kill");
  std::vector<int> sent;
  hook.Replace([&](pid_t to, int signal) {
    sent.push_back(signal);
    return hook.Real(to, signal);
  });
  EXPECT_EQ(0, Utils::ProcessKill(gone, SIGTERM));
  EXPECT_EQ(std::vector<int>{0}, sent);
}

TEST_F(UtilsProcessKill, MinusOneSignalsNobody) {
  KillHook hook("kill");
  hook.Replace([](pid_t, int) { return 0; });
  EXPECT_EQ(0, Utils::ProcessKill(-1, SIGTERM));
  EXPECT_EQ(0, hook.Calls());
  EXPECT_EQ(1, Logged(LOG_DEBUG, "kill PID (-1) with the signal (15)")) << log.Dump();
}

TEST_F(UtilsProcessKill, AProcessOfSomebodyElseIsNothingToKill) {
  Start();
  const pid_t other = pid;
  EXPECT_EQ(0, InChild([&] {
              return setuid(1000) == 0 && Utils::ProcessKill(other, SIGKILL) == 0 ? 0 : 1;
            }));
  EXPECT_EQ(0, kill(other, 0));
}

TEST_F(UtilsProcessKill, ASignalThatCannotBeSentFails) {
  Start();
  EXPECT_EQ(-1, Utils::ProcessKill(pid, 999));
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to kill PID (" + std::to_string(pid) +
                                   ") with the signal (999), errno (Invalid argument)"))
      << log.Dump();
}
