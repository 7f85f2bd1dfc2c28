// The fixed paths, letter for letter: other programs look there.
#include "base/paths.h"

#include <gtest/gtest.h>

using namespace ZorvBtrfsUsage;

TEST(Paths, FixedOnes) {
  EXPECT_STREQ("/run/zorvbtrfssnapusage", kRunDir);
  EXPECT_STREQ("/run/zorvbtrfssnapusage/task_status", kTaskStatusDir);
  EXPECT_STREQ("/run/zorvbtrfssnapusage/task_result", kTaskResultDir);
  EXPECT_STREQ("/run/lock/zorvbtrfssnapusage", kLockDir);
  EXPECT_STREQ("/run/lock/zorvbtrfssnapusage/task_status", kTaskStatusLockDir);
  EXPECT_STREQ("/run/lock/zorvbtrfssnapusage/snap_cal_result", kTaskResultLockDir);
  EXPECT_STREQ("/run/lock/zorvbtrfssnapusage/share_task", kShareTaskLockDir);
  EXPECT_STREQ("/run/lock/zorvbtrfssnapusage/share_task_status", kShareTaskStatusLockDir);
  EXPECT_STREQ("/run/lock/zorvbtrfssnapusage/share_snap_cal_map.lock", kShareMapLock);
  EXPECT_STREQ("/run/lock/zorvbtrfssnapusage/reminder_record.lock", kReminderLock);
  EXPECT_STREQ("/usr/local/zorvbtrfssnapusage", kPersistentDir);
  EXPECT_STREQ("/usr/local/zorvbtrfssnapusage/share_snap_cal_map", kShareMap);
  EXPECT_STREQ("/usr/local/zorvbtrfssnapusage/share_task_status", kShareTaskStatusDir);
  EXPECT_STREQ("/usr/local/zorvbtrfssnapusage/share_task_result", kShareTaskResultDir);
  EXPECT_STREQ("/usr/local/zorvbtrfssnapusage/reminder_record", kReminderRecord);
  EXPECT_STREQ("/sbin/btrfs", kBtrfsProgram);
  EXPECT_STREQ("/usr/bin/uuidgen", kUuidgenProgram);
}

TEST(Paths, OfTasksAndShares) {
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/id", TaskStatusPath("id"));
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/task_status/id.lock", TaskStatusLock("id"));
  EXPECT_EQ("/usr/local/zorvbtrfssnapusage/share_task_status/photos", ShareStatusPath("photos"));
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/share_task_status/photos", ShareStatusLock("photos"));
  EXPECT_EQ("/usr/local/zorvbtrfssnapusage/share_task_result/photos", ShareResultDir("photos"));
}
