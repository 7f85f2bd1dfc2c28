// One calculation from end to end: the real command on a real volume, against the kernel's numbers.
#include "tests/support/btrfs_volume.h"
#include "tests/support/calc_world.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/task_result.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kKept[] = "/tmp/kept";

// Takes the result files out of the task's hands, as the post-action of a share does.
int KeepResults(TaskStatus& status, void*) {
  for (const char* suffix : {".result", ".subvol_id"})
    std::filesystem::copy_file(kResultDir + status.TaskID() + suffix, std::string(kKept) + suffix,
                               std::filesystem::copy_options::overwrite_existing);
  return 0;
}

}  // namespace

class SnapUsageCalculatorEngine : public CalcWorld {
 protected:
  SnapUsageCalculatorEngine() : volume_("/volume1") {
    std::filesystem::copy_file(ZORV_ENGINE_PATH, kBtrfs);
    volume_.Subvolume("share");
    for (unsigned i = 0; i < 4; ++i) {
      WriteRandom(volume_.Path("share/changing"), 300000 + i * 70000, i);
      WriteRandom(volume_.Path("share/file" + std::to_string(i)), 50000, 100 + i);
      const std::string path =
          volume_.Snapshot("share", "share/.snapshots/snap" + std::to_string(i));
      paths_.push_back(path);
      ids_.push_back(SubvolumeID(path));
    }
  }

  // Runs a task over the parameters and returns what it found, by subvolume ID.
  std::map<unsigned long long, unsigned long long> Calculate(
      int option, const std::vector<std::string>& parameters) {
    std::filesystem::remove(std::string(kKept) + ".result");
    std::filesystem::remove(std::string(kKept) + ".subvol_id");
    _tag_ZORV_BTRFS_USAGE_CAL_TASK task = {option, nullptr, &KeepResults, 1};
    SnapUsageCalculator calc;
    EXPECT_TRUE(SnapUsageCalculator::CreateTask(calc));
    PlatformHook<decltype(PLATCProcForkChildNoWait)> fork("PLATCProcForkChildNoWait");
    pid_t pid = -1;
    fork.Replace([&] { return pid = fork.Real(); });
    SzList list = ListOf(parameters);
    EXPECT_EQ(0, calc.Start(&task, SzListRef(list)));
    EXPECT_EQ(0, WaitForExit(pid)) << log_.Dump();

    std::vector<unsigned long long> ids;
    std::vector<unsigned long long> bytes;
    EXPECT_EQ(0, TaskResult::ReadVtr(std::string(kKept) + ".subvol_id", ids));
    EXPECT_EQ(0, TaskResult::ReadVtr(std::string(kKept) + ".result", bytes));
    EXPECT_EQ(ids_, ids);  // in the order of the parameters
    std::map<unsigned long long, unsigned long long> found;
    for (size_t i = 0; i < ids.size() && i < bytes.size(); ++i) found[ids[i]] = bytes[i];
    return found;
  }

  void ExpectTheKernelsNumbers(const std::map<unsigned long long, unsigned long long>& found) {
    const auto kernel = volume_.KernelExclusive();
    for (const unsigned long long id : ids_) {
      ASSERT_EQ(1u, found.count(id));
      EXPECT_EQ(kernel.at(id), found.at(id)) << id;
    }
  }

  BtrfsVolume volume_;
  std::vector<std::string> paths_;
  std::vector<unsigned long long> ids_;
};

TEST_F(SnapUsageCalculatorEngine, NumbersBySubvolumeIDAreTheKernels) {
  SzList paths = ListOf(paths_);
  SzList ids = ListOf({});
  ASSERT_EQ(0, BtrfsTool::PathToRootId(SzListRef(paths), SzListRef(ids)));
  ExpectTheKernelsNumbers(Calculate(CAL_OPT_BY_SUBVOLID, TextsOf(ids)));
}

TEST_F(SnapUsageCalculatorEngine, NumbersByPathAreTheKernels) {
  ExpectTheKernelsNumbers(Calculate(CAL_OPT_BY_PATH, paths_));
}

TEST_F(SnapUsageCalculatorEngine, UnknownSubvolumeEndsInFail) {
  SnapUsageCalculator calc;
  ASSERT_TRUE(SnapUsageCalculator::CreateTask(calc));
  PlatformHook<decltype(PLATCProcForkChildNoWait)> fork("PLATCProcForkChildNoWait");
  pid_t pid = -1;
  fork.Replace([&] { return pid = fork.Real(); });
  _tag_ZORV_BTRFS_USAGE_CAL_TASK task = {CAL_OPT_BY_SUBVOLID, nullptr, nullptr, 1};
  SzList list = ListOf({"99999"});
  EXPECT_EQ(0, calc.Start(&task, SzListRef(list)));
  EXPECT_EQ(1, WaitForExit(pid)) << log_.Dump();
  EXPECT_EQ("fail", StatusOf(calc.TaskID())["status"]);
  EXPECT_EQ("/sbin/btrfs subvolume size -vpm -r /volume1 99999 ",
            StatusOf(calc.TaskID())["btrfs_cmd"]);
}
