// `clean`: removes records and results, and says which.
#include <signal.h>

#include <filesystem>

#include "tests/cli/cli_world.h"
#include "tests/support/syscall_stepper.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

class CmdClean : public CliWorld {
 protected:
  void SecondShare() {
    volume_->Subvolume("mail");
    volume_->Snapshot("mail", "mail/.snapshots/one");
    MustRun(Argv({"run", "mail", "--quiet"}));
  }
};

TEST_F(CmdClean, OneShare) {
  SecondShare();
  MustRun(Argv({"run", "photos", "--quiet"}));
  EXPECT_EQ("removed share 'photos': state done, the result of 3 snapshots, and its tables\n",
            MustRun(Argv({"clean", "photos"})));
  EXPECT_FALSE(fs::exists(kResultsOfPhotos));
  EXPECT_FALSE(fs::exists(kStatusOfPhotos));
  EXPECT_EQ(10, Tool({"show", "photos"}).status);
  EXPECT_EQ(0, Tool({"show", "mail"}).status);
}

TEST_F(CmdClean, AllShares) {
  SecondShare();
  MustRun(Argv({"run", "photos", "--quiet"}));
  EXPECT_EQ(
      "removed share 'mail': state done, the result of 1 snapshot, and its tables\n"
      "removed share 'photos': state done, the result of 3 snapshots, and its tables\n",
      MustRun(Argv({"clean", "--all"})));
  EXPECT_EQ("nothing to remove\n", MustRun(Argv({"clean", "--all"})));
}

TEST_F(CmdClean, WhatToRemoveMustBeSaid) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  const CommandResult result = Tool({"clean"});
  EXPECT_EQ(2, result.status);
  EXPECT_EQ(
      "zorv-snapusage: it is not said what to remove; name a share, or say --interrupted, or --all "
      "for everything that is recorded\n",
      result.err);
  EXPECT_EQ(2, Tool({"clean", "photos", "--all"}).status);
  EXPECT_EQ(2, Tool({"clean", "--interrupted", "--all"}).status);
  EXPECT_EQ(0, Tool({"show", "photos"}).status) << "nothing was removed";
}

TEST_F(CmdClean, InterruptedOnesAlone) {
  SecondShare();
  EXPECT_EQ("nothing to remove\n", MustRun(Argv({"clean", "--interrupted"})));
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  EXPECT_EQ("nothing to remove\n", MustRun(Argv({"clean", "--interrupted"}))) << "under way";
  ASSERT_EQ(0, kill(CalculatorPid(), SIGKILL));
  ASSERT_TRUE(Settled());
  EXPECT_EQ("removed share 'photos': state process, no result\n",
            MustRun(Argv({"clean", "--interrupted"})));
  EXPECT_EQ(0, Tool({"show", "mail"}).status);
  Release();
}

TEST_F(CmdClean, NothingRecordedOfTheShare) { EXPECT_EQ(10, Tool({"clean", "photos"}).status); }

TEST_F(CmdClean, FailedTaskLeavesNothing) {
  FakeEngine("echo 'exclusive sizes unavailable: x'\n");
  Tool({"run", "photos"});
  ASSERT_FALSE(fs::is_empty("/run/zorvbtrfssnapusage/task_status"));
  EXPECT_EQ("removed share 'photos': state fail, no result\n", MustRun(Argv({"clean", "photos"})));
  EXPECT_TRUE(fs::is_empty("/run/zorvbtrfssnapusage/task_status"));
}

// A killed one took the share out of the map and left the task's record, which nobody could find
// then.
TEST_F(CmdClean, OneThatWasKilledIsFinishedByTheNext) {
  FakeEngine("echo 'exclusive sizes unavailable: x'\n");
  size_t number = 0;
  for (bool reached = true; reached;) {
    ++number;
    Tool({"run", "photos"});
    reached = false;
    SyscallStepper().Run(Program(Argv({"clean", "photos"}), "/tmp/clean.out"),
                         [&](const Step& step) {
                           if (step.number != number) return Action::GoOn();
                           reached = true;
                           return Action::KillBefore();
                         });
    SCOPED_TRACE("killed before step " + std::to_string(number));
    const int status = Tool({"clean", "photos"}).status;
    EXPECT_TRUE(status == 0 || status == 10) << status;
    EXPECT_TRUE(fs::is_empty("/run/zorvbtrfssnapusage/task_status"));
    EXPECT_FALSE(fs::exists(kStatusOfPhotos));
    EXPECT_FALSE(fs::exists(kResultsOfPhotos));
  }
  EXPECT_GT(number, 10u);
}

TEST_F(CmdClean, ShareWithACalculationUnderWayIsKept) {
  SecondShare();
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  const CommandResult one = Tool({"clean", "photos"});
  EXPECT_EQ(4, one.status);
  EXPECT_EQ("", one.out);
  EXPECT_EQ(
      "zorv-snapusage: share 'photos' was kept: a calculation of it is under way; end it first "
      "with: zorv-snapusage stop photos\n",
      one.err);
  const CommandResult all = Tool({"clean", "--all"});
  EXPECT_EQ(4, all.status);
  EXPECT_EQ("removed share 'mail': state done, the result of 1 snapshot, and its tables\n",
            all.out);
  Release();
  ASSERT_TRUE(Settled());
  EXPECT_EQ(3u, Shown()["snapshots"].size()) << "its result was not lost";
}

TEST_F(CmdClean, ShareThatNoLongerExists) {
  SecondShare();
  volume_->DeleteSubvolume("mail/.snapshots/one");
  volume_->DeleteSubvolume("mail");
  EXPECT_EQ("removed share 'mail': state done, the result of 1 snapshot, and its tables\n",
            MustRun(Argv({"clean", "mail"})));
}

// Their results were lost to a volume that was mounted again a moment later.
TEST_F(CmdClean, SharesWhoseVolumeIsNotThereAreKept) {
  const BtrfsVolume other("/volume2");
  (void)other.Subvolume("mail");
  (void)other.Snapshot("mail", "mail/.snapshots/one");
  MustRun(Argv({"run", "--all", "--quiet"}));
  volume_->Unmount();
  const CommandResult result = Tool({"clean", "mail"});
  EXPECT_EQ("removed share 'mail': state done, the result of 1 snapshot, and its tables\n",
            result.out);
  EXPECT_EQ(
      "zorv-snapusage: note: the record of share 'photos' is kept, its volume /volume1 is not "
      "there\n",
      result.err);
  EXPECT_EQ(10, Tool({"status", "mail"}).status);
  EXPECT_FALSE(fs::exists("/usr/local/zorvbtrfssnapusage/share_task_result/mail"));
  EXPECT_EQ(0, Tool({"status", "photos"}).status);
  EXPECT_EQ(3u, Shown()["snapshots"].size());
  EXPECT_EQ("removed share 'photos': state done, the result of 3 snapshots, and its tables\n",
            MustRun(Argv({"clean", "photos"})))
      << "it is named";
  volume_->Mount();
}

TEST_F(CmdClean, SharesDroppedOnTheWayAreNamed) {
  SecondShare();
  volume_->Subvolume("zoo");
  volume_->Snapshot("zoo", "zoo/.snapshots/one");
  MustRun(Argv({"run", "zoo", "--quiet"}));
  volume_->DeleteSubvolume("zoo/.snapshots/one");
  volume_->DeleteSubvolume("zoo");
  EXPECT_EQ(
      "removed share 'mail': state done, the result of 1 snapshot, and its tables\n"
      "removed share 'zoo': it no longer exists\n"
      "removed share 'zoo': its tables\n",
      MustRun(Argv({"clean", "--all"})));
}

TEST_F(CmdClean, MapThatCannotBeWrittenIsSaid) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  WriteFile("/etc/fstab", "/dev/sdz /volume2 btrfs defaults 0 0\n");
  const CommandResult result = Tool({"clean", "photos"});
  fs::remove("/etc/fstab");
  EXPECT_EQ(1, result.status);
  EXPECT_THAT(result.err, HasSubstr("the record of share 'photos' cannot be removed"));
}

}  // namespace
