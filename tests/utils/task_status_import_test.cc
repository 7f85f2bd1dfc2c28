// One status file taken over into another.
#include "tests/utils/task_files.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

constexpr char kUnit[] = "utils/task_status";
const std::string kSource = "/run/zorvbtrfssnapusage/task_status/src";
const std::string kAll =
    "{\"btrfs_cmd\":\"/sbin/btrfs \",\"end_time\":\"2024.03.05-17.04.09\",\"error_code\":\"0\","
    "\"error_msg\":\"none\",\"estimated_in_bytes\":\"18446744073709551615\",\"pid\":\"12\","
    "\"processed_in_bytes\":\"4096\",\"range_end\":\"2024.03.05-00.00.00\","
    "\"range_start\":\"2024.03.04-00.00.00\",\"start_time\":\"2024.03.05-17.04.08\","
    "\"status\":\"done\"}";

class TaskStatusImport : public TaskFiles {
 protected:
  TaskStatusImport() { EXPECT_TRUE(source.Init("src", false)); }

  OpenTaskStatus source;
};

#define EXPECT_TASK_LINES(count, function, id, message) \
  EXPECT_EQ(count, log.CountTask(LOG_ERR, kUnit, function, getpid(), id, message)) << log.Dump()

// Sources whose import gives lines with a task ID, and without: the ID is the source's.
void FromBothForms(const std::function<void(TaskStatus&, const std::string&)>& body) {
  InBothForms([&](const Form& form) { body(form.status, form.id); });
}

}  // namespace

TEST_F(TaskStatusImport, TakesEveryKnownMemberAndKeepsItsOwnOthers) {
  WriteFile(kSource, kAll);
  TaskStatus target;
  ASSERT_TRUE(target.Init("own", false));
  WriteFile(kRun + "/task_status/own", "{\"status\":\"ready\",\"zzz\":{\"mine\":[1]}}");
  EXPECT_TRUE(target.Import(source));
  EXPECT_EQ(kAll.substr(0, kAll.size() - 1) + ",\"zzz\":{\"mine\":[1]}}",
            ReadFile(kRun + "/task_status/own"));
  EXPECT_EQ(kAll, ReadFile(kSource));
}

TEST_F(TaskStatusImport, MembersThatTheSourceLacksAreKept) {
  WriteFile(kSource, "{\"status\":\"process\"}");
  TaskStatus target;
  ASSERT_TRUE(target.Init("own", false));
  WriteFile(kRun + "/task_status/own", "{\"pid\":\"9\",\"status\":\"ready\"}");
  EXPECT_TRUE(target.Import(source));
  EXPECT_EQ("{\"pid\":\"9\",\"status\":\"process\"}", ReadFile(kRun + "/task_status/own"));
}

TEST_F(TaskStatusImport, UnknownMembersOfTheSourceStayThere) {
  WriteFile(kSource, "{\"snap_list\":[\"256\"],\"status\":\"process\"}");
  TaskStatus target;
  ASSERT_TRUE(target.Init("own", false));
  EXPECT_TRUE(target.Import(source));
  EXPECT_EQ("{\"status\":\"process\"}", ReadFile(kRun + "/task_status/own"));
}

TEST_F(TaskStatusImport, ValuesAreTakenAsTheyAre) {
  WriteFile(kSource, "{\"error_code\":4,\"pid\":[1],\"status\":null}");
  TaskStatus target;
  ASSERT_TRUE(target.Init("own", false));
  EXPECT_TRUE(target.Import(source));
  EXPECT_EQ("{\"error_code\":4,\"pid\":[1],\"status\":null}", ReadFile(kRun + "/task_status/own"));
}

TEST_F(TaskStatusImport, TakesTheIDForItsLinesAndKeepsItsPaths) {
  WriteFile(kSource, "{}");
  OpenTaskStatus target;
  ASSERT_TRUE(target.Init("own", false));
  EXPECT_TRUE(target.Import(source));
  EXPECT_EQ("src", target.TaskID());
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/own", target.statusFilePath);
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/task_status/own.lock", target.lockFilePath);

  std::string text;
  EXPECT_EQ(1, target.GetStatusAttr(TASKSTATUS_ATTR_PID, text));
  EXPECT_EQ(1, log.CountTask(LOG_DEBUG, kUnit, "GetStatusAttr", getpid(), "src",
                             "Do not have member (pid)"))
      << log.Dump();
}

TEST_F(TaskStatusImport, MissingSourceFileImportsNothing) {
  TaskStatus target;
  ASSERT_TRUE(target.Init("own", true));
  EXPECT_TRUE(target.Import(source));
  EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kRun + "/task_status/own"));
}

TEST_F(TaskStatusImport, NothingIntoNothingLeavesAnEmptyObject) {
  TaskStatus target;
  ASSERT_TRUE(target.Init("own", false));
  EXPECT_TRUE(target.Import(source));
  EXPECT_EQ("{}", ReadFile(kRun + "/task_status/own"));
}

TEST_F(TaskStatusImport, FromItselfChangesNothing) {
  WriteFile(kSource, kAll);
  EXPECT_TRUE(source.Import(source));
  EXPECT_EQ(kAll, ReadFile(kSource));
}

TEST_F(TaskStatusImport, InvalidSourceFailsInBothForms) {
  InBothInvalidForms([this](const Form& form) {
    OpenTaskStatus target;
    ASSERT_TRUE(target.Init("own", true));
    EXPECT_FALSE(target.Import(form.status));
    EXPECT_EQ(form.id, target.TaskID());
    EXPECT_TASK_LINES(1, "GetJsonVal", form.id, "Invalid object" + kTail);
    EXPECT_TASK_LINES(1, "Import", form.id, "Failed to get json value" + kTail);
    EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kRun + "/task_status/own"));
  });
}

TEST_F(TaskStatusImport, InvalidObjectFailsInBothForms) {
  FromBothForms([this](TaskStatus& from, const std::string& id) {
    TaskStatus invalid;
    EXPECT_FALSE(invalid.Import(from));
    EXPECT_FALSE(invalid.Valid());
    EXPECT_EQ(id, invalid.TaskID());
    EXPECT_TASK_LINES(1, "LockFile", id, "Invalid object");
    EXPECT_TASK_LINES(1, "Import", id, "lock failed" + kTail);
  });
}

TEST_F(TaskStatusImport, WithoutTheLockItGivesUpInBothForms) {
  FromBothForms([this](TaskStatus& from, const std::string& id) {
    ASSERT_EQ(0, from.SetStatusAttr(TASKSTATUS_ATTR_PID, "5"));
    OpenTaskStatus target;
    ASSERT_TRUE(target.Init("own", false));
    WriteFile(target.statusFilePath, "{\"status\":\"ready\"}");
    std::filesystem::create_directories(target.lockFilePath);
    EXPECT_FALSE(target.Import(from));
    EXPECT_TASK_LINES(1, "Import", id, "lock failed" + kTail);
    EXPECT_EQ(1, log.CountExact(
                     LOG_ERR, kUnit,
                     "Failed to lock the file, path: " + target.lockFilePath + ", exclusive: 1"))
        << log.Dump();
    EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(target.statusFilePath));
    EXPECT_EQ(-1, target.lockFd);
    log.Clear();
  });
}

TEST_F(TaskStatusImport, SourceWithoutItsLockIsReadAllTheSame) {
  WriteFile(kSource, "{\"pid\":\"5\"}");
  std::filesystem::create_directories(source.lockFilePath);
  TaskStatus target;
  ASSERT_TRUE(target.Init("own", false));
  EXPECT_TRUE(target.Import(source));
  EXPECT_EQ("{\"pid\":\"5\"}", ReadFile(kRun + "/task_status/own"));
  EXPECT_TASK_LINES(1, "GetJsonVal", "src", "lock failed");
}

TEST_F(TaskStatusImport, FailedWriteFailsInBothForms) {
  FromBothForms([this](TaskStatus& from, const std::string& id) {
    TaskStatus target;
    ASSERT_TRUE(target.Init("own", true));
    {
      const ReadOnlyDir refuse(kRun + "/task_status");
      EXPECT_FALSE(target.Import(from));
    }
    EXPECT_TASK_LINES(1, "Import", id,
                      "Failed to write task attr. to file "
                      "[/run/zorvbtrfssnapusage/task_status/own]" +
                          kTail);
    EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kRun + "/task_status/own"));
  });
}

TEST_F(TaskStatusImport, ALockHeldBeforeIsDroppedOnEveryPath) {
  OpenTaskStatus invalid;
  OpenTaskStatus target;
  ASSERT_TRUE(target.Init("own", true));
  ASSERT_TRUE(target.LockFile(true));
  const int fd = target.lockFd;
  EXPECT_FALSE(target.Import(invalid));
  EXPECT_EQ(-1, target.lockFd);
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST_F(TaskStatusImport, IntoAShareShowsTheTasksID) {
  WriteFile(kSource, "{\"status\":\"done\"}");
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  EXPECT_TRUE(share.Import(source));
  EXPECT_EQ("src", share.TaskID());
  EXPECT_EQ("{\"status\":\"done\"}",
            ReadFile("/usr/local/zorvbtrfssnapusage/share_task_status/photos"));
}
