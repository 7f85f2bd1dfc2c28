// What tests of a calculation share: a clean start, /sbin/btrfs as a script, lists, tasks.
#ifndef TESTS_SUPPORT_CALC_WORLD_H_
#define TESTS_SUPPORT_CALC_WORLD_H_

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/sz_list.h"
#include "tests/support/command.h"
#include "tests/support/platform_hook.h"
#include "tests/support/platform_values.h"
#include "tests/support/syslog_capture.h"
#include "zorvbtrfssnapusage/btrfs_tool.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"

namespace ZorvTest {

inline constexpr char kBtrfs[] = "/sbin/btrfs";
inline constexpr char kStatusDir[] = "/run/zorvbtrfssnapusage/task_status/";
inline constexpr char kResultDir[] = "/run/zorvbtrfssnapusage/task_result/";

// A status file's members; empty when there is no such file.
inline std::map<std::string, std::string> StatusOf(const std::string& taskID) {
  std::map<std::string, std::string> members;
  if (!std::filesystem::exists(kStatusDir + taskID)) return members;
  Json::Value value;
  std::istringstream text(ReadFile(kStatusDir + taskID));
  text >> value;
  for (const std::string& key : value.getMemberNames()) members[key] = value[key].asString();
  return members;
}

// A result vector as its file holds it, count first.
inline std::vector<unsigned long long> WordsOf(const std::string& path) {
  const std::string bytes = ReadFile(path);
  EXPECT_EQ(0u, bytes.size() % 8);
  std::vector<unsigned long long> words(bytes.size() / 8);
  bytes.copy(reinterpret_cast<char*>(words.data()), words.size() * 8);
  return words;
}

// Whether the calling thread blocks a signal.
inline bool Blocks(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

// Each test starts without tasks, without /sbin/btrfs, unstopped, with SIGTERM as a fresh process
// has it; orphans of its children come to it.
class CalcWorld : public testing::Test {
 protected:
  CalcWorld() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    Reset();
    PLATCErrSetEx(0, "", 0);
  }
  ~CalcWorld() override { Reset(); }

  // Makes /sbin/btrfs a shell script.
  static void FakeBtrfs(const std::string& script) { WriteScript(kBtrfs, script); }

  // Makes /sbin/btrfs print these lines.
  static void FakeOutput(const std::string& lines) { FakeBtrfs("cat <<'END'\n" + lines + "END\n"); }

  // Puts a file where the run-time directory would be: no task can be opened or made.
  static void SpoilTheDirectories() {
    std::filesystem::remove_all("/run/zorvbtrfssnapusage");
    WriteFile("/run/zorvbtrfssnapusage", "in the way");
  }

  static bool Exists(const std::string& path) { return std::filesystem::exists(path); }

  SyslogCapture log_;

 private:
  static void Reset() {
    std::filesystem::remove_all("/run/zorvbtrfssnapusage");
    std::filesystem::remove_all("/run/lock/zorvbtrfssnapusage");
    std::filesystem::remove_all(kBtrfs);
    signal(SIGTERM, SIG_DFL);
    ZorvBtrfsUsage::BtrfsTool::gSignal = 0;
  }
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_CALC_WORLD_H_
