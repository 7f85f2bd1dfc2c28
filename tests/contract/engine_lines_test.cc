// The pipe between engine and library: both ends held to the same lines.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>

#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"
#include "tests/support/engine_worker.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/task_result.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

using Bytes = std::vector<unsigned long long>;

// A volume with three snapshots of a share, and the engine at its place.
class EngineLines : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::filesystem::remove("/sbin/btrfs");
    std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs");
    volume_ = std::make_unique<BtrfsVolume>("/volume1");
    volume_->Subvolume("share");
    for (unsigned n = 0; n < 3; ++n) {
      WriteRandom(volume_->Path("share/file" + std::to_string(n % 2)), 300000, n);
      ids_.push_back(
          SubvolumeID(volume_->Snapshot("share", "share/.snapshots/s" + std::to_string(n))));
    }
  }
  static void TearDownTestSuite() { volume_.reset(); }

  // What the engine prints for these IDs, asked as the library asks.
  static CommandResult Engine(const Bytes& ids) {
    std::vector<std::string> argv = {"/sbin/btrfs", "subvolume", "size", "-vpm", "-r", "/volume1"};
    for (unsigned long long id : ids) argv.push_back(std::to_string(id));
    return ZorvTest::Run(argv);
  }

  // What the library's parser says of an output; its results stay under the task ID "contract".
  static _tag_fp_parse_function_ret Parse(std::string output) {
    TaskStatus::CleanFile("contract");
    TaskResult::CleanFile("contract");
    SnapUsageCalculator task;
    EXPECT_EQ(0, task.Init("contract"));
    output.push_back('\0');
    FILE* stream = fmemopen(output.data(), output.size() - 1, "r");
    std::string message;
    const auto result = SnapUsageCalculator::ParseCmdFp("contract", stream, message, nullptr);
    fclose(stream);
    return result;
  }

  static Bytes Result(TASK_RESULT_OPT option) {
    Bytes values;
    EXPECT_EQ(0, TaskResult::GetResultVtr(option, "contract", values));
    return values;
  }

  static std::unique_ptr<BtrfsVolume> volume_;
  static Bytes ids_;
};

std::unique_ptr<BtrfsVolume> EngineLines::volume_;
Bytes EngineLines::ids_;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

const char kUnavailable[] = "exclusive sizes unavailable: ";

}  // namespace

TEST_F(EngineLines, EachLineIsOneOfTheAgreedForms) {
  const CommandResult run = Engine(ids_);
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ('\n', run.out.back());
  const std::regex form(
      "(generation|total|processed|exclusive) [0-9]+( bytes)?|subvol\\([0-9]+\\) [0-9]+ bytes");
  for (const std::string& line : Lines(run.out)) EXPECT_TRUE(std::regex_match(line, form)) << line;
}

TEST_F(EngineLines, ParserRecordsWhatTheEngineFound) {
  const CommandResult run = Engine(ids_);
  ASSERT_EQ(0, run.status) << run.err;
  ASSERT_EQ(FP_PARSE_OK, Parse(run.out));
  const auto kernel = volume_->KernelExclusive();
  Bytes expected;
  for (unsigned long long id : ids_) expected.push_back(kernel.at(id));
  EXPECT_EQ(ids_, Result(TASK_RESULT_OPT_SUBVOL_ID));
  EXPECT_EQ(expected, Result(TASK_RESULT_OPT_RESULT));
}

TEST_F(EngineLines, ParserKeepsTheOrderOfTheArguments) {
  const Bytes reversed(ids_.rbegin(), ids_.rend());
  ASSERT_EQ(FP_PARSE_OK, Parse(Engine(reversed).out));
  EXPECT_EQ(reversed, Result(TASK_RESULT_OPT_SUBVOL_ID));
}

TEST_F(EngineLines, ProgressOfTheStatusFileIsTheLastLines) {
  const CommandResult run = Engine(ids_);
  ASSERT_EQ(FP_PARSE_OK, Parse(run.out));
  std::string processed, exclusive, total;
  for (const std::string& line : Lines(run.out)) {
    char value[32] = "";
    if (sscanf(line.c_str(), "processed %31s", value) == 1) processed = value;
    if (sscanf(line.c_str(), "exclusive %31s", value) == 1) exclusive = value;
    if (sscanf(line.c_str(), "total %31s", value) == 1) total = value;
  }
  TaskStatus status("contract");
  std::string text;
  ASSERT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_PROCESSED_IN_BYTES, text));
  EXPECT_EQ(processed, text);
  EXPECT_EQ(total, text);
  ASSERT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_ESTIMATED_IN_BYTES, text));
  EXPECT_EQ(exclusive, text);
  unsigned long long sum = 0;
  for (unsigned long long bytes : Result(TASK_RESULT_OPT_RESULT)) sum += bytes;
  EXPECT_EQ(std::to_string(sum), text);
}

TEST_F(EngineLines, FailureIsNoNumberForTheParser) {
  const CommandResult run = Engine({ids_[0], 999999});
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find("ERROR: ")) << run.err;
  const std::string last = Lines(run.out).back();
  EXPECT_EQ(0u, last.find(kUnavailable)) << last;
  EXPECT_LE(last.size() + 1, 200u);
  EXPECT_EQ(std::string::npos, last.find_first_of("0123456789")) << last;
  EXPECT_EQ(std::string::npos, run.out.find("subvol("));
  EXPECT_EQ(FP_PARSE_FAIL, Parse(run.out));
}

TEST_F(EngineLines, KilledWorkerIsAFailureForTheParser) {
  const pid_t killer = fork();
  if (killer == 0) {
    const pid_t worker = HoldEngineWorker(120);
    _exit(worker > 0 && kill(worker, SIGKILL) == 0 ? 0 : 1);
  }
  // The killer may come too late for a quick run: then the run is whole, and tried again.
  CommandResult run = Engine(ids_);
  for (int tries = 0; run.status == 0 && tries < 10000; ++tries) run = Engine(ids_);
  EXPECT_EQ(0, WaitForExit(killer));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(0u, Lines(run.out).back().find(kUnavailable)) << run.out;
  EXPECT_EQ(FP_PARSE_FAIL, Parse(run.out));
}
