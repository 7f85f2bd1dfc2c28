// The private world itself: what tests rely on holds.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>

#include "base/unique_fd.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"
#include "tests/support/sandbox.h"
#include "tests/support/syslog_capture.h"

using namespace ZorvTest;

TEST(Sandbox, WritesStayInside) {
  const std::string path = "/usr/local/zorv_sandbox_probe";
  EXPECT_EQ(0, RunInSandbox({}, [&] {
              WriteFile(path, "inside");
              return ReadFile(path) == "inside" ? 0 : 1;
            }));
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Sandbox, ReturnsTheBodysStatus) {
  EXPECT_EQ(7, RunInSandbox({}, [] { return 7; }));
  EXPECT_EQ(128 + SIGKILL, RunInSandbox({}, [] { return raise(SIGKILL); }));
}

TEST(Sandbox, LeftOverProcessesEndWithIt) {
  int alive[2];
  ASSERT_EQ(0, pipe(alive));
  RunInSandbox({}, [&] {
    if (fork() == 0) pause();
    return 0;
  });
  close(alive[1]);
  char byte;
  EXPECT_EQ(0, read(alive[0], &byte, 1));  // end of file: nobody holds the other end
  close(alive[0]);
}

TEST(Sandbox, BoundDirectoriesAreWrittenThrough) {
  std::filesystem::create_directories("/srv/through");
  RunInSandbox({"/srv/through"}, [] {
    WriteFile("/srv/through/file", "x");
    return 0;
  });
  EXPECT_EQ("x", ReadFile("/srv/through/file"));
}

TEST(SyslogCapture, SeesLinesOfThisProcessAndItsChildren) {
  SyslogCapture log;
  syslog(LOG_ERR, "%s:%d %s", "unit/a", 12, "text: one");
  EXPECT_EQ(0, InChild([] {
              syslog(LOG_DEBUG, "unit/b:3 (Fn)[%d][id]: two", getpid());
              return 0;
            }));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, "unit/a", "text: one")) << log.Dump();
  EXPECT_EQ(0, log.CountExact(LOG_DEBUG, "unit/a", "text: one"));
  EXPECT_EQ(1, log.CountTask(LOG_DEBUG, "unit/b", "Fn", 0, "id", "two")) << log.Dump();
  EXPECT_EQ(0, log.CountTask(LOG_DEBUG, "unit/b", "Fn", getpid(), "id", "two"));
}

TEST(BtrfsVolume, KernelNumbersOfTwoSnapshots) {
  BtrfsVolume volume("/volume1");
  volume.Subvolume("share");
  WriteRandom(volume.Path("share/file"), 1 << 20, 1);
  const unsigned long long first = SubvolumeID(volume.Snapshot("share", "share/.snapshots/one"));
  WriteRandom(volume.Path("share/file"), 1 << 20, 2);
  const auto exclusive = volume.KernelExclusive();
  ASSERT_TRUE(exclusive.count(first));
  EXPECT_GE(exclusive.at(first), 1u << 20);
  EXPECT_TRUE(std::filesystem::exists(volume.Path("share/file")));
}
