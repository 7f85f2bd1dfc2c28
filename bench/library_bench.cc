// What the library itself costs, operation by operation; its persistent files lie on a disk.
//
//   library_bench DISK [options of Google Benchmark, such as --benchmark_format=json]
//
// Needs root. DISK is a folder that does not lie in memory.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <filesystem>
#include <memory>

#include "base/paths.h"
#include "bench/started_at.h"
#include "bench/world.h"
#include "tests/support/command.h"
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/task_result.h"

namespace ZorvBench {
namespace {

using namespace ZorvBtrfsUsage;

constexpr int kMillion = 1000000;
constexpr int kManyShares = 1000;

// The status files of a task in progress and of its share, which is the map's last.
class RunningTask {
 public:
  explicit RunningTask(int shares) {
    PutMap(shares);
    MustBe(shareStatus_.Init(ShareOf(shares - 1), /*create=*/true), "the share's status");
    MustBe(status_.Init(TaskOf(shares - 1), /*create=*/true), "the task's status");
  }
  TaskStatus& Status() { return status_; }

 private:
  ShareTaskStatus shareStatus_;
  TaskStatus status_;
};

// The task's own status, then the share's: what each line of progress costs. Argument: shares.
void ProgressLine(benchmark::State& state) {
  RunningTask task(static_cast<int>(state.range(0)));
  unsigned long long bytes = 0;
  for (auto _ : state) {
    const int written = task.Status().SetStatusAttr(TASKSTATUS_ATTR_PROCESSED_IN_BYTES,
                                                    std::to_string(bytes += 4096));
    MustBe(written == 0, "SetStatusAttr");
    MustBe(ShareSnapUsageCal::UpdateTaskStatus(task.Status(), nullptr) == PROGRESS_UPDATE_OK,
           "UpdateTaskStatus");
  }
}
BENCHMARK(ProgressLine)->Arg(1)->Arg(kManyShares)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The engine's output for that many subvolumes, each once.
std::string OutputOf(int subvolumes) {
  std::string text = "generation 7\n";
  char line[64];
  for (int i = 0; i < subvolumes; ++i) {
    (void)snprintf(line, sizeof line, "subvol(%d) %llu bytes\n", 256 + i, 16384ULL * (i % 977 + 1));
    text += line;
  }
  return text;
}

// To the result vectors of the task.
void ParseMillionLines(benchmark::State& state) {
  RunningTask task(1);
  std::string text = OutputOf(kMillion);
  std::string errMsg;
  for (auto _ : state) {
    const std::unique_ptr<FILE, int (*)(FILE*)> lines(fmemopen(text.data(), text.size(), "r"),
                                                      fclose);
    MustBe(SnapUsageCalculator::ParseCmdFp(TaskOf(0), lines.get(), errMsg, nullptr) == FP_PARSE_OK,
           "ParseCmdFp");
  }
  MustBe(TaskResult::CleanFile(TaskOf(0)), "CleanFile");
}
BENCHMARK(ParseMillionLines)->UseRealTime()->Unit(benchmark::kMillisecond);

// From the copy in the share's folder, as callers read it.
void GetResultVtrMillion(benchmark::State& state) {
  RunningTask task(1);
  std::vector<unsigned long long> values;
  for (int i = 0; i < kMillion; ++i) values.push_back(16384ULL * static_cast<unsigned>(i));
  std::filesystem::create_directories(ShareResultDir(ShareOf(0)));
  MustBe(
      TaskResult::WriteVtr(ShareResultDir(ShareOf(0)) + "/" + TaskOf(0) + ".result", values) == 0,
      "WriteVtr");
  std::vector<unsigned long long> read;
  for (auto _ : state)
    MustBe(ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, ShareOf(0), read) == 0,
           "GetResultVtr");
  MustBe(read == values, "the comparison of what was read");
}
BENCHMARK(GetResultVtrMillion)->UseRealTime()->Unit(benchmark::kMillisecond);

// From a share to its task. Argument: shares in the map.
void FindTaskOfShare(benchmark::State& state) {
  PutMap(static_cast<int>(state.range(0)));
  std::string id;
  bool expired = false;
  for (auto _ : state)
    MustBe(ShareSnapUsageCal::FindTaskID(ShareOf(0), id, expired) == 0, "FindTaskID");
}
BENCHMARK(FindTaskOfShare)->Arg(1)->Arg(kManyShares)->UseRealTime()->Unit(benchmark::kMicrosecond);

// From a task back to its share, the last of the map. Argument: shares in the map.
void FindShareOfTask(benchmark::State& state) {
  const int last = static_cast<int>(state.range(0)) - 1;
  PutMap(last + 1);
  std::string share;
  for (auto _ : state)
    MustBe(ShareSnapUsageCal::FindShareNameByTaskID(TaskOf(last), share) == 0,
           "FindShareNameByTaskID");
}
BENCHMARK(FindShareOfTask)->Arg(1)->Arg(kManyShares)->UseRealTime()->Unit(benchmark::kMicrosecond);

double Seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// When the stand-in was started.
double StartedAt() {
  const std::string bytes = ZorvTest::ReadFile(kStartedAt);
  timespec time;
  MustBe(bytes.size() == sizeof time, "reading the stand-in's time");
  memcpy(&time, bytes.data(), sizeof time);
  return Seconds(time);
}

// CreateTask and Launch, until the engine's first instruction. Arguments: snapshots, other shares
// in the map.
void LaunchToEngineStart(benchmark::State& state) {
  InstallEngine(ZORV_STAND_IN_PATH);
  const SnapshotShare share("photos", /*files=*/10, static_cast<int>(state.range(0)));
  for (auto _ : state) {
    PutMap(static_cast<int>(state.range(1)));
    timespec asked;
    MustBe(clock_gettime(CLOCK_MONOTONIC, &asked) == 0, "clock_gettime");
    Launch(share);
    AwaitCalculator();
    state.SetIterationTime(StartedAt() - Seconds(asked));
  }
}
BENCHMARK(LaunchToEngineStart)
    ->Args({1, 0})
    ->Args({100, 0})
    ->Args({100, kManyShares})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace ZorvBench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc != 2) {
    fprintf(stderr, "usage: library_bench DISK [options of Google Benchmark]\n");
    return 2;
  }
  return ZorvBench::RunInWorld(argv[1],
                               [] { return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1; });
}
