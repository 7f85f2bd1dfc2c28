// ReminderStatusSet and ReminderStatusGet: the record, its lock, and records of another shape.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::kLockDir;
using ZorvBtrfsUsage::kPersistentDir;
using ZorvBtrfsUsage::kReminderLock;
using ZorvBtrfsUsage::kReminderRecord;
using ZorvBtrfsUsage::Utils;

namespace {

// Documents that hold no members.
const char* const kWrongShapes[] = {"[]", "[\"reminder\"]", "7", "\"reminder\"", "true"};

class UtilsReminder : public UtilsTest {
 protected:
  // What the record says, through the library; -1 when it says nothing.
  int Stored() { return Utils::ReminderStatusGet(on) ? on : -1; }

  bool on = false;
};

class UtilsReminderStatusSet : public UtilsReminder {};
class UtilsReminderStatusGet : public UtilsReminder {};

std::string MkdirFailure(const std::string& dir, int error) {
  return "Faild to mkdir " + dir + ", err:(" + strerror(error) + ")." + Tail();
}

std::string LockFailure(bool exclusive) {
  return std::string("Failed to lock the file, path: ") + kReminderLock +
         ", exclusive: " + (exclusive ? "1" : "0");
}

}  // namespace

TEST_F(UtilsReminderStatusSet, StoresBothValues) {
  EXPECT_TRUE(Utils::ReminderStatusSet(true));
  EXPECT_EQ(1, Stored());
  EXPECT_EQ("{\"reminder\":true}", ReadFile(kReminderRecord));
  EXPECT_TRUE(Utils::ReminderStatusSet(false));
  EXPECT_EQ(0, Stored());
  EXPECT_EQ("{\"reminder\":false}", ReadFile(kReminderRecord));
}

TEST_F(UtilsReminderStatusSet, MakesDirectoriesRecordAndLockWithTheirModes) {
  umask(0);
  EXPECT_TRUE(Utils::ReminderStatusSet(true));
  EXPECT_EQ(0777, ModeOf(kPersistentDir));
  EXPECT_EQ(0777, ModeOf(kLockDir));
  EXPECT_EQ(0600, ModeOf(kReminderRecord));
  EXPECT_EQ(0644, ModeOf(kReminderLock));
  EXPECT_TRUE(Utils::ReminderStatusSet(true));
  EXPECT_EQ(0644, ModeOf(kReminderRecord));
}

TEST_F(UtilsReminderStatusSet, KeepsOtherMembers) {
  WriteFile(kReminderRecord, "{\"other\":[1,2]}");
  EXPECT_TRUE(Utils::ReminderStatusSet(true));
  EXPECT_EQ("{\"other\":[1,2],\"reminder\":true}", ReadFile(kReminderRecord));
}

TEST_F(UtilsReminderStatusSet, ReplacesAMemberOfAnotherType) {
  WriteFile(kReminderRecord, "{\"reminder\":\"yes\"}");
  EXPECT_TRUE(Utils::ReminderStatusSet(false));
  EXPECT_EQ("{\"reminder\":false}", ReadFile(kReminderRecord));
}

TEST_F(UtilsReminderStatusSet, StartsAnewOnAnEmptyRecord) {
  WriteFile(kReminderRecord, "");
  EXPECT_TRUE(Utils::ReminderStatusSet(true));
  EXPECT_EQ("{\"reminder\":true}", ReadFile(kReminderRecord));
}

TEST_F(UtilsReminderStatusSet, ARecordOfAnotherShapeIsLeftAlone) {
  for (const char* text : kWrongShapes) {
    SCOPED_TRACE(text);
    log.Clear();
    WriteFile(kReminderRecord, text);
    EXPECT_FALSE(Utils::ReminderStatusSet(true));
    EXPECT_EQ(text, ReadFile(kReminderRecord));
    EXPECT_EQ(1, Logged(LOG_ERR, "Invaild Argument (record.isObject())=[0]\n")) << log.Dump();
  }
}

TEST_F(UtilsReminderStatusSet, ADirectoryInTheRecordsPlaceFails) {
  std::filesystem::create_directories(kReminderRecord);
  EXPECT_FALSE(Utils::ReminderStatusSet(true));
  EXPECT_TRUE(std::filesystem::is_directory(kReminderRecord));
}

TEST_F(UtilsReminderStatusSet, FailsWithoutItsDirectory) {
  const ScopedTmpfs readOnly("/usr/local", "", MS_RDONLY);
  EXPECT_FALSE(Utils::ReminderStatusSet(true));
  EXPECT_EQ(1, Logged(LOG_ERR, MkdirFailure(kPersistentDir, EROFS))) << log.Dump();
  EXPECT_FALSE(std::filesystem::exists(kLockDir));  // the record's directory comes first
}

TEST_F(UtilsReminderStatusSet, FailsWithoutTheLockDirectory) {
  const ScopedTmpfs readOnly("/run/lock", "", MS_RDONLY);
  EXPECT_FALSE(Utils::ReminderStatusSet(true));
  EXPECT_EQ(1, Logged(LOG_ERR, MkdirFailure(kLockDir, EROFS))) << log.Dump();
  EXPECT_TRUE(std::filesystem::is_directory(kPersistentDir));
  EXPECT_FALSE(std::filesystem::exists(kReminderRecord));
}

TEST_F(UtilsReminderStatusSet, FailsWithoutTheLock) {
  std::filesystem::create_directories(kReminderLock);
  EXPECT_FALSE(Utils::ReminderStatusSet(true));
  EXPECT_EQ(1, Logged(LOG_ERR, LockFailure(true))) << log.Dump();
  EXPECT_FALSE(std::filesystem::exists(kReminderRecord));
}

TEST_F(UtilsReminderStatusSet, FailedUnlockIsLoggedAndChangesNothing) {
  const FailingUnlock failing;
  EXPECT_TRUE(Utils::ReminderStatusSet(true));
  EXPECT_EQ(1, Logged(LOG_ERR, failing.Message())) << log.Dump();
}

TEST_F(UtilsReminderStatusSet, HoldsTheExclusiveLockWhileItWrites) {
  PlatformHook<int(const char*, const char*)> hook("rename");
  short seen = 0;
  hook.Replace([&](const char* from, const char* to) {
    seen = LockSeenByOthers(kReminderLock, F_RDLCK).l_type;
    return hook.Real(from, to);
  });
  EXPECT_TRUE(Utils::ReminderStatusSet(true));
  EXPECT_EQ(F_WRLCK, seen);
}

TEST_F(UtilsReminderStatusSet, WritersAndReadersOfManyProcesses) {
  ASSERT_TRUE(Utils::ReminderStatusSet(true));
  pid_t writers[4];
  for (pid_t& writer : writers) {
    writer = fork();
    if (writer != 0) continue;
    alarm(60);
    for (int i = 0; i < 50; ++i)
      if (!Utils::ReminderStatusSet(i % 2 == 0)) _exit(1);
    _exit(0);
  }
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(Utils::ReminderStatusGet(on));
  for (const pid_t writer : writers) EXPECT_EQ(0, WaitForExit(writer));
  EXPECT_EQ(0, Stored());
}

TEST_F(UtilsReminderStatusGet, BeforeAnySetFailsAndLeavesTheArgument) {
  for (const bool before : {true, false}) {
    on = before;
    EXPECT_FALSE(Utils::ReminderStatusGet(on));
    EXPECT_EQ(before, on);
  }
  EXPECT_FALSE(std::filesystem::exists(kPersistentDir));  // the reader makes only the lock's
  EXPECT_TRUE(std::filesystem::is_directory(kLockDir));
}

TEST_F(UtilsReminderStatusGet, WithoutTheMemberFails) {
  WriteFile(kReminderRecord, "{\"other\":true}");
  on = true;
  EXPECT_FALSE(Utils::ReminderStatusGet(on));
  EXPECT_TRUE(on);
}

TEST_F(UtilsReminderStatusGet, ConvertsAsTheJsonLibraryDoes) {
  const struct {
    const char* text;
    bool read;
    bool on;
  } kCases[] = {
      {"true", true, true},   {"false", true, false}, {"1", true, true},
      {"0", true, false},     {"-3", true, true},     {"0.0", true, false},
      {"0.5", true, true},    {"null", true, false},  {"\"true\"", false, false},
      {"\"\"", false, false}, {"[]", false, false},   {"[true]", false, false},
      {"{}", false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    WriteFile(kReminderRecord, std::string("{\"reminder\":") + c.text + "}");
    for (const bool before : {true, false}) {
      on = before;
      EXPECT_EQ(c.read, Utils::ReminderStatusGet(on));
      EXPECT_EQ(c.read ? c.on : before, on);
    }
  }
}

TEST_F(UtilsReminderStatusGet, ARecordOfAnotherShapeFails) {
  for (const char* text : kWrongShapes) {
    SCOPED_TRACE(text);
    WriteFile(kReminderRecord, text);
    on = true;
    EXPECT_FALSE(Utils::ReminderStatusGet(on));
    EXPECT_TRUE(on);
  }
}

TEST_F(UtilsReminderStatusGet, ABrokenRecordFails) {
  for (const std::string& text :
       {std::string(), std::string("{\"rem"), std::string(2000, '['), std::string("no json")}) {
    SCOPED_TRACE(text.substr(0, 20));
    WriteFile(kReminderRecord, text);
    EXPECT_FALSE(Utils::ReminderStatusGet(on));
  }
  std::filesystem::remove(kReminderRecord);
  std::filesystem::create_directory(kReminderRecord);
  EXPECT_FALSE(Utils::ReminderStatusGet(on));
}

TEST_F(UtilsReminderStatusGet, FailsWithoutTheLockDirectory) {
  WriteFile(kReminderRecord, "{\"reminder\":true}");
  const ScopedTmpfs readOnly("/run/lock", "", MS_RDONLY);
  EXPECT_FALSE(Utils::ReminderStatusGet(on));
  EXPECT_FALSE(on);
  EXPECT_EQ(1, Logged(LOG_ERR, MkdirFailure(kLockDir, EROFS))) << log.Dump();
}

TEST_F(UtilsReminderStatusGet, FailsWithoutTheLock) {
  WriteFile(kReminderRecord, "{\"reminder\":true}");
  std::filesystem::create_directories(kReminderLock);
  EXPECT_FALSE(Utils::ReminderStatusGet(on));
  EXPECT_FALSE(on);
  EXPECT_EQ(1, Logged(LOG_ERR, LockFailure(false))) << log.Dump();
}

TEST_F(UtilsReminderStatusGet, FailedUnlockIsLoggedAndChangesNothing) {
  ASSERT_TRUE(Utils::ReminderStatusSet(true));
  const FailingUnlock failing;
  EXPECT_TRUE(Utils::ReminderStatusGet(on));
  EXPECT_TRUE(on);
  EXPECT_EQ(1, Logged(LOG_ERR, failing.Message())) << log.Dump();
}

TEST_F(UtilsReminderStatusGet, ReadersShareTheLock) {
  ASSERT_TRUE(Utils::ReminderStatusSet(true));
  int fd = -1;
  ASSERT_TRUE(Utils::GeneralFileLock(kReminderLock, false, fd));
  EXPECT_EQ(0, InChild([] {
              alarm(60);  // ends the child if it has to wait
              bool read = false;
              return Utils::ReminderStatusGet(read) && read ? 0 : 1;
            }));
  EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
}

TEST_F(UtilsReminderStatusGet, WaitsForAWriter) {
  ASSERT_TRUE(Utils::ReminderStatusSet(true));
  int fd = -1;
  ASSERT_TRUE(Utils::GeneralFileLock(kReminderLock, true, fd));
  const pid_t reader = fork();
  if (reader == 0) {
    alarm(60);
    bool read = false;
    _exit(Utils::ReminderStatusGet(read) && read ? 0 : 1);
  }
  EXPECT_TRUE(WaitUntil([&] { return WaitsForLock(reader); }));
  EXPECT_EQ(0, waitpid(reader, nullptr, WNOHANG));
  EXPECT_TRUE(Utils::GeneralFileUnlock(fd));
  EXPECT_EQ(0, WaitForExit(reader));
}
