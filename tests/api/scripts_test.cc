// The scripts say in one line what a machine lacks, before they touch anything.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

const std::string kScripts = ZORV_SOURCE_DIR "/scripts/";

// Expects that a run fails at once with one line on standard error that holds `words`.
void ExpectOneLine(const CommandResult& run, const std::string& words) {
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
  EXPECT_NE(std::string::npos, run.err.find(words)) << run.err;
}

// Each script, run through `prefix`.
void ExpectOfBothScripts(std::vector<std::string> prefix, const std::string& words) {
  for (const char* script : {"test.sh", "demo.sh"}) {
    SCOPED_TRACE(script);
    std::vector<std::string> argv = prefix;
    argv.push_back("bash");
    argv.push_back(kScripts + script);
    ExpectOneLine(ZorvTest::Run(argv), words);
  }
}

}  // namespace

TEST(Scripts, SayThatTheyNeedRoot) {
  // A copy, since another user may not enter the checkout.
  std::filesystem::copy(kScripts, "/tmp/scripts");
  for (const char* script : {"test.sh", "demo.sh"})
    ExpectOneLine(ZorvTest::Run({"setpriv", "--reuid=65534", "--clear-groups", "bash",
                                 std::string("/tmp/scripts/") + script}),
                  "needs root");
}

TEST(Scripts, SayThatTheKernelHasNoBtrfs) {
  WriteFile("/tmp/filesystems", "nodev\ttmpfs\n\text4\n");
  MustRun({"mount", "--bind", "/tmp/filesystems", "/proc/filesystems"});
  // A modprobe that loads nothing, as on a kernel without the module.
  WriteScript("/tmp/none/modprobe", "exit 1\n");
  ExpectOfBothScripts({"env", "PATH=/tmp/none:/usr/sbin:/usr/bin:/sbin:/bin"}, "no btrfs");
  MustRun({"umount", "/proc/filesystems"});
}

TEST(Scripts, SayThatAnotherDistributionIsNotServed) {
  std::filesystem::create_directories("/tmp/bare");
  for (const char* program : {"bash", "env", "id", "dirname", "basename", "grep", "cat"})
    std::filesystem::create_symlink(std::string("/usr/bin/") + program,
                                    std::string("/tmp/bare/") + program);
  ExpectOfBothScripts({"/usr/bin/env", "PATH=/tmp/bare"}, "apt-get");
}

TEST(Scripts, RefuseArgumentsTheyDoNotKnow) {
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "test.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "demo.sh", "--fast"}), "--help");
}
