// The scripts say in one line what a machine lacks, before they touch anything; the tables of what
// the library costs.
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
void ExpectOfEachScript(std::vector<std::string> prefix, const std::string& words) {
  for (const char* script : {"test.sh", "demo.sh", "bench.sh", "fuzz.sh", "generated.sh",
                             "torture.sh", "everything.sh"}) {
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
  for (const char* script : {"test.sh", "demo.sh", "bench.sh", "fuzz.sh", "generated.sh",
                             "torture.sh", "package.sh", "everything.sh"})
    ExpectOneLine(ZorvTest::Run({"setpriv", "--reuid=65534", "--clear-groups", "bash",
                                 std::string("/tmp/scripts/") + script}),
                  "needs root");
}

TEST(Scripts, SayThatTheKernelHasNoBtrfs) {
  WriteFile("/tmp/filesystems", "nodev\ttmpfs\n\text4\n");
  MustRun({"mount", "--bind", "/tmp/filesystems", "/proc/filesystems"});
  // A modprobe that loads nothing, as on a kernel without the module.
  WriteScript("/tmp/none/modprobe", "exit 1\n");
  ExpectOfEachScript({"env", "PATH=/tmp/none:/usr/sbin:/usr/bin:/sbin:/bin"}, "no btrfs");
  MustRun({"umount", "/proc/filesystems"});
}

TEST(Scripts, SayThatAnotherDistributionIsNotServed) {
  std::filesystem::create_directories("/tmp/bare");
  for (const char* program : {"bash", "env", "id", "dirname", "basename", "grep", "cat"})
    std::filesystem::create_symlink(std::string("/usr/bin/") + program,
                                    std::string("/tmp/bare/") + program);
  ExpectOfEachScript({"/usr/bin/env", "PATH=/tmp/bare"}, "apt-get");
}

TEST(Scripts, RefuseArgumentsTheyDoNotKnow) {
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "test.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "demo.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "bench.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "generated.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "torture.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "fuzz.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "coverage.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "package.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "everything.sh", "--fast"}), "--help");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "fuzz.sh", "nonesuch"}), "no such target");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "torture.sh", "nonesuch"}), "no such harness");
  ExpectOneLine(ZorvTest::Run({"bash", kScripts + "bench.sh", "--only", "a,z"}), "no such part: z");
}

TEST(Scripts, RefuseSeedsAndCountsThatAreNone) {
  for (const char* text : {"", "0", "-1", "many", "1x"})
    for (const char* option : {"--count", "--first-seed"})
      ExpectOneLine(ZorvTest::Run({"bash", kScripts + "generated.sh", option, text}),
                    std::string(option) + " needs a number");
}

TEST(Scripts, PackagesHaveOneVersion) {
  std::filesystem::create_directory("/tmp/checkout");
  for (const char* part : {"scripts", "packaging", "CMakeLists.txt"})
    MustRun({"cp", "-rT", std::string(ZORV_SOURCE_DIR "/") + part,
             std::string("/tmp/checkout/") + part});
  MustRun({"sed", "-i", "s/VERSION [0-9.]* LANGUAGES/VERSION 8.7.6 LANGUAGES/",
           "/tmp/checkout/CMakeLists.txt"});
  ExpectOneLine(ZorvTest::Run({"bash", "/tmp/checkout/scripts/package.sh"}),
                "CMakeLists.txt at 8.7.6");
}

TEST(Scripts, MeasurementsReadWhatTheyAreGiven) {
  const CommandResult run =
      ZorvTest::Run({"python3", "-B", ZORV_SOURCE_DIR "/tests/tools/bench_test.py"});
  EXPECT_EQ(0, run.status) << run.err;
}

TEST(Scripts, BranchesAreHeldAgainstTheirTable) {
  const CommandResult run =
      ZorvTest::Run({"python3", "-B", ZORV_SOURCE_DIR "/tests/tools/check_branches_test.py"});
  EXPECT_EQ(0, run.status) << run.err;
}

namespace {

// The report of a measurement in which each operation took 1, 2 and 6 ms.
std::string ReportOfOperations() {
  std::string runs;
  for (const char* operation :
       {"ProgressLine/1/real_time", "ProgressLine/1000/real_time", "ParseMillionLines/real_time",
        "GetResultVtrMillion/real_time", "FindTaskOfShare/1/real_time",
        "FindTaskOfShare/1000/real_time", "FindShareOfTask/1/real_time",
        "FindShareOfTask/1000/real_time", "LaunchToEngineStart/1/0/manual_time",
        "LaunchToEngineStart/100/0/manual_time", "LaunchToEngineStart/100/1000/manual_time"})
    for (const char* microseconds : {"1000", "6000", "2000"})
      runs += std::string(runs.empty() ? "" : ",") + R"({"run_type":"iteration","run_name":")" +
              operation + R"(","real_time":)" + microseconds + R"(,"time_unit":"us"})";
  return R"({"benchmarks":[)" + runs + R"(,{"run_type":"aggregate","name":"x"}]})";
}

CommandResult LibraryCost(const std::string& overhead) {
  WriteFile("/tmp/bench.json", ReportOfOperations());
  WriteFile("/tmp/calculations.tsv",
            "files\tsnapshots\tshares\truns\tengine_ms\tlibrary_ms\toverhead_ms\toverhead_min_ms\t"
            "overhead_max_ms\n20000\t64\t1\t21\t46.4\t58.6\t" +
                overhead + "\t4.2\t37.3\n");
  return ZorvTest::Run({"python3", ZORV_SOURCE_DIR "/bench/library_cost.py", "--from",
                        "/tmp/bench.json", "/tmp/calculations.tsv"});
}

}  // namespace

TEST(LibraryCost, PrintsARowForEachOperationAndCalculation) {
  const CommandResult run = LibraryCost("12.2");
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos,
            run.out.find("| `GetResultVtr` of 10^6 entries | 2 ms | 1 ms | 6 ms |"))
      << run.out;
  EXPECT_NE(std::string::npos,
            run.out.find("| 20000 | 64 | 46.4 ms | 58.6 ms | 12.2 ms | 4.2 ms | 37.3 ms |"))
      << run.out;
  EXPECT_EQ(11 + 1 + 2 * 2 + 1, std::count(run.out.begin(), run.out.end(), '\n')) << run.out;
}

TEST(LibraryCost, SaysWhenACalculationCostsTooMuch) {
  EXPECT_EQ(0, LibraryCost("30.0").status);
  const CommandResult run = LibraryCost("30.1");
  EXPECT_EQ(3, run.status);
  EXPECT_NE(std::string::npos, run.out.find("30.1 ms")) << run.out;
}

TEST(LibraryCost, ProgramThatFailsIsNoTable) {
  std::filesystem::create_directories("/tmp/programs");
  WriteScript("/tmp/programs/library_bench", "exit 1\n");
  const CommandResult run =
      ZorvTest::Run({"python3", ZORV_SOURCE_DIR "/bench/library_cost.py", "/tmp/programs", "/tmp"});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("", run.out);
}
