// Ten shares on two volumes, calculated at once by ten processes.
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "tests/share_snap_calculator/share_fixture.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;
using Vector = std::vector<unsigned long long>;

constexpr int kShares = 10;
constexpr int kSnapshots = 4;

class TenShares : public ShareTest {
 protected:
  TenShares() {
    std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs",
                               std::filesystem::copy_options::overwrite_existing);
    for (int share = 0; share < kShares; ++share) FillShare(share);
  }

  static std::string NameOf(int share) { return "share" + std::to_string(share); }
  BtrfsVolume& VolumeOf(int share) { return share % 2 == 0 ? volume1_ : volume2_; }

  // Each share has sizes of its own, and every snapshot something of its own and something shared.
  void FillShare(int share) {
    BtrfsVolume& volume = VolumeOf(share);
    volume.Subvolume(NameOf(share));
    for (int i = 0; i < kSnapshots; ++i) {
      const unsigned seed = static_cast<unsigned>(100 * share + i);
      const std::string dir = NameOf(share) + "/";
      WriteRandom(volume.Path(dir + "rewritten"), 16384u * (share + 1) + 4096u * i, seed);
      WriteRandom(volume.Path(dir + "kept" + std::to_string(i)), 32768, seed + 50);
      if (i == 2) std::filesystem::remove(volume.Path(dir + "kept0"));
      volume.Snapshot(NameOf(share),
                      dir + ".snapshots/GMT-2024.0" + std::to_string(i + 1) + ".01-00.00.00");
    }
  }

  // What one caller does from the creation of the task to its end.
  static int Calculate(const std::string& share) {
    ShareSnapUsageCal cal;
    if (cal.CreateTask(share) != 0) return 101;
    if (cal.Launch(nullptr, nullptr) != 0) return 102;
    std::string id;
    bool expired = false;
    if (ShareSnapUsageCal::FindTaskID(share, id, expired) != 0) return 103;
    // The task's own file goes last, when the results have been copied.
    if (!WaitUntil([&] { return !TaskStatus::CheckFile(id); }, 60)) return 104;
    return ShareStatus(share, "status") == "done" ? 0 : 105;
  }

  BtrfsVolume volume1_{"/volume1"};
  BtrfsVolume volume2_{"/volume2"};
};

TEST_F(TenShares, AtOnceEndDoneWithTheKernelsNumbers) {
  int gate[2];
  ASSERT_EQ(0, pipe(gate));
  std::vector<pid_t> callers;
  for (int share = 0; share < kShares; ++share) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(gate[1]);
      char c;
      (void)!read(gate[0], &c, 1);
      _exit(Calculate(NameOf(share)));
    }
    callers.push_back(pid);
  }
  close(gate[0]);
  close(gate[1]);
  for (int share = 0; share < kShares; ++share)
    EXPECT_EQ(0, WaitForExit(callers[static_cast<size_t>(share)])) << NameOf(share);
  ASSERT_FALSE(HasFailure()) << syslog_.Dump();

  std::map<unsigned long long, unsigned long long> kernels[] = {volume1_.KernelExclusive(),
                                                                volume2_.KernelExclusive()};
  for (int share = 0; share < kShares; ++share) {
    SCOPED_TRACE(NameOf(share));
    EXPECT_EQ("done", ShareStatus(NameOf(share), "status"));
    EXPECT_EQ("0", ShareStatus(NameOf(share), "error_code"));
    Vector ids, usage;
    EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, NameOf(share), ids));
    EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, NameOf(share), usage));
    ASSERT_EQ(static_cast<size_t>(kSnapshots), ids.size());
    ASSERT_EQ(static_cast<size_t>(kSnapshots), usage.size());
    EXPECT_LT(32768u, usage[1]);  // it has data of its own, not only its root node
    for (int i = 0; i < kSnapshots; ++i) {
      ASSERT_EQ(1u, kernels[share % 2].count(ids[i])) << ids[i];
      EXPECT_EQ(kernels[share % 2][ids[i]], usage[i]) << ids[i];
    }
  }
}

}  // namespace
}  // namespace ZorvTest
