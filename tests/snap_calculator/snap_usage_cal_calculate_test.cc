// The two entry points of a calculation: the same run, different words about its failure.
#include <regex>

#include "tests/support/calc_world.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

using Calculate = int (SnapUsageCalculator::*)(const _tag_ZORV_BTRFS_USAGE_CAL_TASK&, PLATSZLIST**,
                                               std::string&, std::string&);

const struct Way {
  const char* name;
  Calculate calculate;
} kByPath = {"CalculateByPath", &SnapUsageCalculator::CalculateByPath},
  kBySubvolID = {"CalculateBySubvolID", &SnapUsageCalculator::CalculateBySubvolID};

class CalculateWorld : public CalcWorld {
 protected:
  int Run(const Way& way, SnapUsageCalculator& calc) {
    SzList list = ListOf({"257"});
    return (calc.*way.calculate)(task_, SzListRef(list), errMsg_, btrfsCmd_);
  }
  int Run(const Way& way) {
    SnapUsageCalculator calc;
    EXPECT_EQ(0, calc.Init("t1"));
    log_.Clear();
    return Run(way, calc);
  }

  // How often the failure was logged as of this function and task.
  int Failures(const std::string& function, const std::string& taskID) {
    const std::regex line(R"(snap_calculator/snap_usage_cal:\d+ \()" + function + R"(\)\[)" +
                          std::to_string(getpid()) + "\\]" +
                          (taskID.empty() ? "" : "\\[" + taskID + "\\]") +
                          ": Failed to calcuate read-only snapshot usage, errno: [^\\[]+" +
                          R"(\[0x[0-9A-F]{4} [^ ]*:\d+\])");
    int count = 0;
    for (const SyslogLine& l : log_.Lines())
      count += l.priority == LOG_ERR && std::regex_match(l.text, line);
    return count;
  }

  _tag_ZORV_BTRFS_USAGE_CAL_TASK task_ = {CAL_OPT_BY_SUBVOLID, nullptr, nullptr, 1};
  std::string errMsg_ = "message";
  std::string btrfsCmd_ = "untouched";
};

}  // namespace

class SnapUsageCalculatorCalculateByPath : public CalculateWorld {};
class SnapUsageCalculatorCalculateBySubvolID : public CalculateWorld {};

// What both do in the same way.
static void ExpectCodesUnchanged(const std::function<int()>& run, const std::string& function,
                                 _tag_ZORV_BTRFS_USAGE_CAL_TASK& task,
                                 const std::function<int()>& failures) {
  SCOPED_TRACE(function);
  std::filesystem::remove_all(kBtrfs);
  EXPECT_EQ(6, run());
  EXPECT_EQ(1, failures());

  std::filesystem::create_directory(kBtrfs);
  EXPECT_EQ(13, run());
  EXPECT_EQ(1, failures());
  std::filesystem::remove(kBtrfs);

  WriteScript(kBtrfs, "echo subvol\n");
  EXPECT_EQ(1, run());
  EXPECT_EQ(1, failures());

  task.calOption = 3;
  EXPECT_EQ(3, run());
  EXPECT_EQ(1, failures());
  task.calOption = CAL_OPT_BY_SUBVOLID;

  WriteScript(kBtrfs, "echo 'subvol(257) 1 bytes'\n");
  EXPECT_EQ(0, run());
  EXPECT_EQ(0, failures());
}

TEST_F(SnapUsageCalculatorCalculateByPath, ReturnsTheCodeAndLogsEveryFailure) {
  ExpectCodesUnchanged([&] { return Run(kByPath); }, kByPath.name, task_,
                       [&] { return Failures("CalculateByPath", "t1"); });
}

TEST_F(SnapUsageCalculatorCalculateBySubvolID, ReturnsTheCodeAndLogsEveryFailure) {
  ExpectCodesUnchanged([&] { return Run(kBySubvolID); }, kBySubvolID.name, task_,
                       [&] { return Failures("CalculateBySubvolID", "t1"); });
}

TEST_F(SnapUsageCalculatorCalculateByPath, StopIsLogged) {
  FakeOutput("x\n");
  BtrfsTool::gSignal = 15;
  EXPECT_EQ(12, Run(kByPath));
  EXPECT_EQ(1, Failures("CalculateByPath", "t1")) << log_.Dump();
}

TEST_F(SnapUsageCalculatorCalculateBySubvolID, StopIsSilent) {
  FakeOutput("x\n");
  BtrfsTool::gSignal = 15;
  EXPECT_EQ(12, Run(kBySubvolID));
  EXPECT_EQ(0, log_.Count("Failed to calcuate")) << log_.Dump();
}

TEST_F(SnapUsageCalculatorCalculateByPath, WithoutATaskTheMessageHasNoID) {
  SnapUsageCalculator calc;
  EXPECT_EQ(6, Run(kByPath, calc));
  EXPECT_EQ(1, Failures("CalculateByPath", "")) << log_.Dump();
}

TEST_F(SnapUsageCalculatorCalculateBySubvolID, WithoutATaskTheMessageHasNoID) {
  SnapUsageCalculator calc;
  EXPECT_EQ(6, Run(kBySubvolID, calc));
  EXPECT_EQ(1, Failures("CalculateBySubvolID", "")) << log_.Dump();
}

TEST_F(SnapUsageCalculatorCalculateByPath, MessageNamesErrnoAndThePlatformError) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("t1"));
  FakeOutput("x\n");
  PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
  open.AlwaysFails(0x2A00, EMFILE);  // logged by nobody else
  EXPECT_EQ(13, Run(kByPath, calc));
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, "snap_calculator/snap_usage_cal", "CalculateByPath",
                              getpid(), "t1",
                              "Failed to calcuate read-only snapshot usage, errno: Too many open "
                              "files[0x2A00 tests/hook:1]"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorCalculateByPath, OptionOfTheRecordAloneShapesTheCommand) {
  FakeOutput("x\n");
  EXPECT_EQ(0, Run(kByPath));
  EXPECT_EQ("/sbin/btrfs subvolume size -vpm -r /volume1 257 ", btrfsCmd_);
}

TEST_F(SnapUsageCalculatorCalculateBySubvolID, OptionOfTheRecordAloneShapesTheCommand) {
  FakeOutput("x\n");
  task_.calOption = CAL_OPT_BY_PATH;
  EXPECT_EQ(0, Run(kBySubvolID));
  EXPECT_EQ("/sbin/btrfs subvolume size -vpm 257 ", btrfsCmd_);
}

TEST_F(SnapUsageCalculatorCalculateBySubvolID, ResultIsRecordedUnderTheTask) {
  FakeOutput("subvol(257) 5 bytes\n");
  EXPECT_EQ(0, Run(kBySubvolID));
  EXPECT_EQ((std::vector<unsigned long long>{1, 5}),
            WordsOf(std::string(kResultDir) + "t1.result"));
  EXPECT_EQ((std::vector<unsigned long long>{1, 257}),
            WordsOf(std::string(kResultDir) + "t1.subvol_id"));
}
