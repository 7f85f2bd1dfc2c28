// What the program is started with, and as whom, changes nothing but the zone of its times.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "tests/cli/cli_world.h"
#include "tests/support/user_rights.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

class Environment : public CliWorld {
 protected:
  // The program with nothing in its environment but this.
  static CommandResult ToolWith(const std::vector<std::string>& settings,
                                const std::vector<std::string>& words) {
    std::vector<std::string> argv = {"/usr/bin/env", "-i"};
    argv.insert(argv.end(), settings.begin(), settings.end());
    for (const std::string& word : Argv(words)) argv.push_back(word);
    return ZorvTest::Run(argv);
  }
};

TEST_F(Environment, ProgramsAreNotLookedForInPath) {
  for (const char* program : {"btrfs", "uuidgen", "sh", "bash", "env", "mkdir", "rm", "cp"})
    WriteScript(std::string("/opt/traps/") + program, "touch /opt/trapped\n");
  EXPECT_EQ(0, ToolWith({"PATH=/opt/traps"}, {"run", "photos"}).status);
  EXPECT_EQ(0, ToolWith({"PATH=/opt/traps"}, {"clean", "--all"}).status);
  RealEngine();
  EXPECT_EQ(0, ToolWith({"PATH=/opt/traps"}, {"run", "photos"}).status);
  EXPECT_FALSE(fs::exists("/opt/trapped"));
}

TEST_F(Environment, NoneAtAllWillDo) {
  RealEngine();
  EXPECT_EQ(0, ToolWith({}, {"run", "photos"}).status);
  EXPECT_EQ(0, ToolWith({}, {"show", "photos", "--format", "json"}).status);
  EXPECT_EQ(0, ToolWith({}, {"clean", "--all"}).status);
}

TEST_F(Environment, GarbageChangesNoResult) {
  RealEngine();
  const std::string huge(100000, 'x');
  const std::vector<std::string> cases = {"LC_ALL=../../opt/x",
                                          "LC_ALL=\x01\xFF",
                                          "LANG=" + huge,
                                          "LANGUAGE=%s%n",
                                          "TZ=",
                                          "TZ=:/../../etc/passwd",
                                          "TZ=\x01%n",
                                          "TZ=" + huge,
                                          "TZ=AAA99BBB,J999/999",
                                          "HOME=",
                                          "HOME=/nowhere",
                                          "IFS=/",
                                          "TMPDIR=/nowhere",
                                          "TERM=" + huge,
                                          "COLUMNS=-1",
                                          "BASH_ENV=/opt/traps/sh",
                                          "ENV=/opt/traps/sh",
                                          "LOCPATH=/nowhere",
                                          "NLSPATH=%n",
                                          "LD_LIBRARY_PATH=/nowhere",
                                          "GCONV_PATH=/nowhere",
                                          "MALLOC_CHECK_=3",
                                          "TZDIR=/nowhere"};
  for (const std::string& setting : cases) {
    SCOPED_TRACE(setting.substr(0, 40));
    EXPECT_EQ(0, ToolWith({setting}, {"run", "photos", "--quiet"}).status);
    const CommandResult shown = ToolWith({setting}, {"show", "photos", "--format", "json"});
    EXPECT_EQ(0, shown.status) << shown.err;
    const Json::Value result = ParseJson(shown.out);
    ASSERT_EQ(3u, result["snapshots"].size());
    EXPECT_EQ(ID(kFirst), result["snapshots"][0]["subvolume_id"].asUInt64());
    EXPECT_EQ(1709283849, result["snapshots"][0]["timestamp"].asInt64());
    EXPECT_EQ(0, ToolWith({setting}, {"status", "photos"}).status);
  }
}

TEST_F(Environment, RootOfAUserNamespaceIsSentAway) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  for (const char* program : {"bin", "lib"}) fs::create_directories(std::string("/opt/") + program);
  MustRun({"cp", ZORV_CLI_PATH, "/opt/bin/"});
  MustRun({"sh", "-c", "cp -a " ZORV_BINARY_DIR "/lib/*.so* /opt/lib/"});
  for (const char* command : {"run", "start", "status", "show", "stop", "clean"}) {
    SCOPED_TRACE(command);
    const CommandResult result = ZorvTest::Run({"/opt/bin/zorv-snapusage", command, "photos"},
                                               [] { BecomeRootOfUserNamespace(65534); });
    EXPECT_EQ(16, result.status);
    EXPECT_EQ(
        "zorv-snapusage: '/' belongs to user 65534, not to root; run this as root of the machine, "
        "not of a user namespace\n",
        result.err);
  }
  EXPECT_EQ(0, Tool({"show", "photos"}).status) << "nothing was lost";
}

// What root of the machine may do is decided by its rights outside: it has them there as well.
TEST_F(Environment, RootInAUserNamespaceOfItsOwn) {
  RealEngine();
  const CommandResult result =
      ZorvTest::Run(Argv({"run", "photos", "--quiet"}), [] { BecomeRootOfUserNamespace(0); });
  EXPECT_EQ(0, result.status) << result.err;
}

// An engine that fails after it has printed a table, for a caller who does not want to hear of the
// end of his children: that would leave the program without it, too.
TEST_F(Environment, IgnoredEndsOfChildrenHideNoFailure) {
  table_ = std::string("(") + kTable + "); kill -KILL $$";
  FakeEngine("");
  const std::vector<std::string> plan = Argv({"plan", "photos", "--keep-last", "1"});
  const CommandResult result = ZorvTest::Run(plan, [] { (void)signal(SIGCHLD, SIG_IGN); });
  EXPECT_EQ(11, result.status) << result.err;
  EXPECT_EQ("", result.out);
}

TEST_F(Environment, IgnoredEndsOfChildrenAreNoFailure) {
  RealEngine();
  const CommandResult result = ZorvTest::Run(Argv({"plan", "photos", "--keep-last", "1"}),
                                             [] { (void)signal(SIGCHLD, SIG_IGN); });
  EXPECT_EQ(0, result.status) << result.err;
}

TEST_F(Environment, EnginesGetNoDescriptorOfTheCaller) {
  constexpr char kSeen[] = "/tmp/engine.descriptors";
  WriteFile("/opt/caller", "");
  RealEngine();
  fs::rename("/sbin/btrfs", "/opt/engine");
  WriteScript("/sbin/btrfs", std::string("ls -l /proc/$$/fd >> ") + kSeen + "; echo \"$3\" >> " +
                                 kSeen + "; exec /opt/engine \"$@\"\n");
  for (const std::vector<std::string>& words : {std::vector<std::string>{"run", "photos"},
                                                {"plan", "photos", "--keep-last", "1"},
                                                {"explain", "photos", kFirst},
                                                {"start", "photos"}}) {
    const CommandResult result = ZorvTest::Run(Argv(words), [] {
      for (const int fd : {8, 9, 30}) (void)dup2(open("/opt/caller", O_RDWR), fd);
    });
    EXPECT_EQ(0, result.status) << words[0] << result.err;
    EXPECT_TRUE(Settled());
  }
  const std::string seen = ReadFile(kSeen);
  for (const char* asked : {"--version", "--table", "--files", "-vpm"})
    EXPECT_THAT(seen, HasSubstr(asked));
  EXPECT_THAT(seen, Not(HasSubstr("/opt/caller")));
}

// Whatever is the first that there is none for: a pipe, or what the engine begins with.
TEST_F(Environment, TooFewDescriptorsAreNoFaultOfTheEngine) {
  std::set<int> ends;
  for (rlim_t few = 8; few < 20; ++few) {
    SCOPED_TRACE(few);
    const CommandResult result = ZorvTest::Run(Argv({"plan", "photos", "--keep-last", "1"}), [few] {
      const rlimit limit = {few, few};
      (void)setrlimit(RLIMIT_NOFILE, &limit);
    });
    ends.insert(result.status);
    EXPECT_THAT(result.err, Not(HasSubstr("install")));
  }
  EXPECT_EQ((std::set<int>{0, 1}), ends);
}

}  // namespace
