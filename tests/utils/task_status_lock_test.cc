// The record lock of a status file: taken, dropped, waited for, and honoured by every operation.
#include <memory>
#include <vector>

#include "tests/utils/task_files.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

constexpr char kUnit[] = "utils/task_status";
const std::string kFile = "/run/zorvbtrfssnapusage/task_status/t1";
const std::string kLockFile = "/run/lock/zorvbtrfssnapusage/task_status/t1.lock";

class TaskStatusLocks : public TaskFiles {
 protected:
  TaskStatusLocks() { EXPECT_TRUE(status.Init("t1", true)); }

  OpenTaskStatus status;
};
using TaskStatusLockFile = TaskStatusLocks;
using TaskStatusUnlockFile = TaskStatusLocks;

// An operation of an object in another process: 0 when it went well.
struct Operation {
  const char* name;
  std::function<int(TaskStatus&)> run;
};

const std::vector<Operation> kReaders = {
    {"GetStatusAttr",
     [](TaskStatus& s) {
       std::string out;
       return s.GetStatusAttr(TASKSTATUS_ATTR_STATUS, out);
     }},
    {"CheckAttrExist",
     [](TaskStatus& s) { return s.CheckAttrExist(TASKSTATUS_ATTR_STATUS) ? 0 : 1; }},
    {"GetJsonVal",
     [](TaskStatus& s) {
       Json::Value out;
       return s.GetJsonVal(out);
     }},
    {"GetCalculatorStatus",
     [](TaskStatus& s) {
       CAL_TASK_STATUS out;
       return s.GetCalculatorStatus(out);
     }},
    {"LockFile shared", [](TaskStatus& s) { return s.LockFile(false) ? 0 : 1; }},
};

const std::vector<Operation> kWriters = {
    {"SetStatusAttr", [](TaskStatus& s) { return s.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"); }},
    {"SetStatusIntAttr", [](TaskStatus& s) { return s.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 1); }},
    {"SetStatusNowTimeAttr",
     [](TaskStatus& s) { return s.SetStatusNowTimeAttr(TASKSTATUS_ATTR_END_TIME); }},
    {"SetCalculatorStatus",
     [](TaskStatus& s) { return s.SetCalculatorStatus(CAL_TASK_STATUS_DONE); }},
    {"Import",
     [](TaskStatus& s) {
       TaskStatus other("t2");
       return s.Import(other) ? 0 : 1;
     }},
    {"LockFile exclusive", [](TaskStatus& s) { return s.LockFile(true) ? 0 : 1; }},
};

int RunOn(const Operation& operation) {
  TaskStatus status("t1");
  return operation.run(status);
}

// The operation waits as long as somebody else holds a lock of `type`, then ends well.
void ExpectWaits(const Operation& operation, short type) {
  auto holder = std::make_unique<LockHolder>(kLockFile, type);
  Background process([&] { return RunOn(operation); });
  EXPECT_TRUE(WaitUntil([&] { return process.WaitsForLock(); }));
  holder.reset();
  EXPECT_EQ(0, process.Wait());
}

}  // namespace

TEST_F(TaskStatusLockFile, SharedAndExclusiveAreReadAndWriteLocks) {
  pid_t self = getpid();
  EXPECT_EQ(F_UNLCK, LockOn(kLockFile));
  EXPECT_TRUE(status.LockFile(false));
  EXPECT_GE(status.lockFd, 0);
  EXPECT_EQ(F_RDLCK, LockOn(kLockFile, &self));
  EXPECT_TRUE(status.UnlockFile());
  EXPECT_TRUE(status.LockFile(true));
  EXPECT_GE(status.lockFd, 0);
  EXPECT_EQ(F_WRLCK, LockOn(kLockFile, &self));
  EXPECT_TRUE(status.UnlockFile());
  EXPECT_EQ(F_UNLCK, LockOn(kLockFile));
}

TEST_F(TaskStatusLockFile, MissingLockFileIsMade) {
  std::filesystem::remove(kLockFile);
  EXPECT_TRUE(status.LockFile(false));
  EXPECT_EQ(0644, ModeOf(kLockFile));
  EXPECT_TRUE(status.UnlockFile());
}

TEST_F(TaskStatusLockFile, InvalidObjectFailsInBothForms) {
  InBothInvalidForms([this](const Form& form) {
    EXPECT_FALSE(form.status.LockFile(true));
    EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "LockFile", getpid(), form.id, "Invalid object"))
        << log.Dump();
  });
}

TEST_F(TaskStatusLockFile, LockThatIsNotToBeHadFails) {
  std::filesystem::remove(kLockFile);
  std::filesystem::create_directory(kLockFile);
  EXPECT_FALSE(status.LockFile(true));
  EXPECT_FALSE(status.LockFile(false));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                              "Failed to lock the file, path: "
                              "/run/lock/zorvbtrfssnapusage/task_status/t1.lock, exclusive: 1"))
      << log.Dump();
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                              "Failed to lock the file, path: "
                              "/run/lock/zorvbtrfssnapusage/task_status/t1.lock, exclusive: 0"))
      << log.Dump();
  EXPECT_TRUE(status.UnlockFile());
  EXPECT_EQ(-1, status.lockFd);
}

TEST_F(TaskStatusLockFile, LockOfAKilledProcessIsFree) {
  { const LockHolder killed(kLockFile, F_WRLCK); }
  EXPECT_TRUE(status.LockFile(true));
  EXPECT_TRUE(status.UnlockFile());
}

TEST_F(TaskStatusUnlockFile, DropsTheLockAndForgetsTheDescriptor) {
  ASSERT_TRUE(status.LockFile(true));
  const int fd = status.lockFd;
  EXPECT_TRUE(status.UnlockFile());
  EXPECT_EQ(-1, status.lockFd);
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
  EXPECT_EQ(F_UNLCK, LockOn(kLockFile));
}

TEST_F(TaskStatusUnlockFile, WithoutALockItIsTrue) {
  EXPECT_TRUE(status.UnlockFile());
  EXPECT_EQ(-1, status.lockFd);
}

TEST_F(TaskStatusUnlockFile, InvalidObjectIsFalseAndSilent) {
  log.Clear();
  InBothInvalidForms([this](const Form& form) {
    EXPECT_FALSE(form.status.UnlockFile());
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  });
}

TEST_F(TaskStatusUnlockFile, FailedUnlockIsLoggedAndTrue) {
  status.lockFd = 9999;
  EXPECT_TRUE(status.UnlockFile());
  EXPECT_EQ(-1, status.lockFd);
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, "Failed to unlock fd(9999)")) << log.Dump();
}

TEST_F(TaskStatusLocks, EveryOperationDropsItsLock) {
  for (const auto* operations : {&kReaders, &kWriters})
    for (const Operation& operation : *operations) {
      SCOPED_TRACE(operation.name);
      EXPECT_EQ(0, operation.run(status));
      if (std::string(operation.name).find("LockFile") == 0) status.UnlockFile();
      EXPECT_EQ(-1, status.lockFd);
      EXPECT_EQ(F_UNLCK, LockOn(kLockFile));
    }
}

TEST_F(TaskStatusLocks, EveryOperationWaitsForAnExclusiveHolder) {
  for (const auto* operations : {&kReaders, &kWriters})
    for (const Operation& operation : *operations) {
      SCOPED_TRACE(operation.name);
      ExpectWaits(operation, F_WRLCK);
    }
}

TEST_F(TaskStatusLocks, WritersWaitForReaders) {
  for (const Operation& operation : kWriters) {
    SCOPED_TRACE(operation.name);
    ExpectWaits(operation, F_RDLCK);
  }
}

TEST_F(TaskStatusLocks, ReadersShare) {
  const LockHolder reader(kLockFile, F_RDLCK);
  for (const Operation& operation : kReaders) {
    SCOPED_TRACE(operation.name);
    Background process([&] { return RunOn(operation); });
    EXPECT_EQ(0, process.Wait());
  }
}

TEST_F(TaskStatusLocks, WriteAfterTheWaitKeepsWhatTheHolderWrote) {
  auto holder = std::make_unique<LockHolder>(kLockFile, F_WRLCK);
  Background writer([] {
    TaskStatus other("t1");
    return other.SetStatusAttr(TASKSTATUS_ATTR_PID, "1");
  });
  ASSERT_TRUE(WaitUntil([&] { return writer.WaitsForLock(); }));
  WriteFile(kFile, "{\"status\":\"process\"}");
  holder.reset();
  EXPECT_EQ(0, writer.Wait());
  EXPECT_EQ("{\"pid\":\"1\",\"status\":\"process\"}", ReadFile(kFile));
}

TEST_F(TaskStatusLocks, ManyWritersLoseNothing) {
  constexpr int kProcesses = 6;
  constexpr int kRounds = 60;
  std::vector<std::unique_ptr<Background>> processes;
  for (int i = 0; i < kProcesses; ++i)
    processes.push_back(std::make_unique<Background>([i] {
      TaskStatus own("t1");
      const auto attr = static_cast<TASKSTATUS_ATTR>(TASKSTATUS_ATTR_ERROR_MSG + i);
      for (int round = 0; round < kRounds; ++round) {
        std::string text;
        if (own.SetStatusAttr(attr, std::to_string(round)) != 0) return 1;
        if (own.GetStatusAttr(attr, text) != 0) return 2;
        // Nobody else writes this member: anything else is somebody's write lost.
        if (text != std::to_string(round)) return 3;
      }
      return 0;
    }));
  for (auto& process : processes) EXPECT_EQ(0, process->Wait());
  Json::Value value;
  ASSERT_EQ(0, status.GetJsonVal(value));
  EXPECT_EQ(1u + kProcesses, value.size());
}

TEST_F(TaskStatusLocks, ReaderBesideAWriterAlwaysSeesAWholeFile) {
  Background writer([] {
    TaskStatus own("t1");
    for (int i = 0;; i = !i)
      if (own.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, std::string(i * 50000, 'x')) != 0) return 1;
  });
  for (int i = 0; i < 500; ++i) {
    CAL_TASK_STATUS state = CAL_TASK_STATUS_DONE;
    ASSERT_EQ(0, status.GetCalculatorStatus(state));
    ASSERT_EQ(CAL_TASK_STATUS_READY, state);
  }
}
