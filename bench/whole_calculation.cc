// A whole calculation through the library (task created, launched, engine run, results read) beside
// the bare engine on the same snapshots, in turns.
//
//   whole_calculation DISK [FILES [SNAPSHOTS [RUNS [SHARES]]]]
//
// Prints two lines, separated by tabs: names, and medians in milliseconds. Needs root. DISK is a
// folder that does not lie in memory. Ends with 1 when the two do not give the same numbers.
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>
#include <stdexcept>

#include "base/unique_fd.h"
#include "bench/world.h"
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"

namespace ZorvBench {
namespace {

using namespace ZorvBtrfsUsage;
using Clock = std::chrono::steady_clock;
using Sizes = std::map<unsigned long long, unsigned long long>;  // exclusive bytes by ID

struct Plan {
  std::string disk;
  int files = 20000;
  int snapshots = 64;
  int runs = 21;
  int shares = 1;  // in the map, with the one that is calculated
};

double MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Standard output of a program that must end well.
std::string OutputOf(const std::vector<std::string>& words) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error(strerror(errno));
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), STDOUT_FILENO);
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error(words[0] + ": " + strerror(error));
  writeEnd.Reset();

  std::string output;
  char chunk[65536];
  for (ssize_t got; (got = read(readEnd.Get(), chunk, sizeof chunk)) > 0;)
    output.append(chunk, static_cast<size_t>(got));
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || status != 0)
    throw std::runtime_error("the engine ended with status " + std::to_string(status));
  return output;
}

Sizes SizesOf(const std::string& output) {
  Sizes sizes;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    unsigned long long id = 0, bytes = 0;
    if (sscanf(line.c_str(), "subvol(%llu) %llu bytes", &id, &bytes) == 2) sizes[id] = bytes;
  }
  return sizes;
}

std::vector<std::string> EngineCommand(const SnapshotShare& share) {
  std::vector<std::string> words = {"/sbin/btrfs", "subvolume", "size", "-vpm", "-r", "/volume1"};
  for (const std::string& path : share.Paths())
    words.push_back(std::to_string(ZorvTest::SubvolumeID(path)));
  return words;
}

double TimeBareEngine(const std::vector<std::string>& command, Sizes* sizes) {
  const Clock::time_point start = Clock::now();
  const std::string output = OutputOf(command);
  const double taken = MillisecondsSince(start);
  *sizes = SizesOf(output);
  return taken;
}

// To the calculator's end, and the results in the caller's hands.
double TimeLibrary(const SnapshotShare& share, Sizes* sizes) {
  const Clock::time_point start = Clock::now();
  Launch(share);
  AwaitCalculator();
  std::vector<unsigned long long> ids, bytes;
  if (ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, share.Name(), ids) != 0 ||
      ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, share.Name(), bytes) != 0)
    throw std::runtime_error("no results");
  const double taken = MillisecondsSince(start);
  for (size_t i = 0; i < ids.size(); ++i) (*sizes)[ids[i]] = bytes.at(i);
  return taken;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// Two lines: names and values. The overhead is that of each run, beside the engine's run before it.
void PrintRow(const Plan& plan, const std::vector<double>& bare,
              const std::vector<double>& library) {
  std::vector<double> overhead;
  for (size_t i = 0; i < bare.size(); ++i) overhead.push_back(library[i] - bare[i]);
  const auto [least, most] = std::minmax_element(overhead.begin(), overhead.end());
  printf(
      "files\tsnapshots\tshares\truns\tengine_ms\tlibrary_ms\toverhead_ms\t"
      "overhead_min_ms\toverhead_max_ms\n");
  printf("%d\t%d\t%d\t%d\t%.1f\t%.1f\t%.1f\t%.1f\t%.1f\n", plan.files, plan.snapshots, plan.shares,
         plan.runs, Median(bare), Median(library), Median(overhead), *least, *most);
}

int Measure(const Plan& plan) {
  InstallEngine(ZORV_ENGINE_PATH);
  const SnapshotShare share("photos", plan.files, plan.snapshots);
  const std::vector<std::string> command = EngineCommand(share);
  PutMap(plan.shares - 1);
  std::vector<double> bare, library;
  for (int run = 0; run <= plan.runs; ++run) {
    Sizes fromEngine, fromLibrary;
    const double bareTime = TimeBareEngine(command, &fromEngine);
    const double libraryTime = TimeLibrary(share, &fromLibrary);
    if (fromEngine != fromLibrary || fromEngine.size() != share.Paths().size())
      throw std::runtime_error("the library's numbers are not the engine's");
    if (run == 0) continue;  // the first warms programs and directories up
    bare.push_back(bareTime);
    library.push_back(libraryTime);
  }
  PrintRow(plan, bare, library);
  return 0;
}

// False: the words are no plan.
bool ParsePlan(int argc, char** argv, Plan* plan) {
  if (argc < 2 || argc > 6) return false;
  plan->disk = argv[1];
  int* const numbers[] = {&plan->files, &plan->snapshots, &plan->runs, &plan->shares};
  for (int i = 2; i < argc; ++i) {
    *numbers[i - 2] = atoi(argv[i]);
    if (*numbers[i - 2] < 1) return false;
  }
  return true;
}

}  // namespace
}  // namespace ZorvBench

int main(int argc, char** argv) {
  ZorvBench::Plan plan;
  if (!ZorvBench::ParsePlan(argc, argv, &plan)) {
    fprintf(stderr, "usage: whole_calculation DISK [FILES [SNAPSHOTS [RUNS [SHARES]]]]\n");
    return 2;
  }
  return ZorvBench::RunInWorld(plan.disk, [&] { return ZorvBench::Measure(plan); });
}
