// The file copy.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zorvplatform/share.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/platform/platform_error.h"
#include "tests/platform/process_state.h"
#include "tests/support/command.h"
#include "tests/support/platform_hook.h"
#include "tests/support/sync_calls.h"

using namespace ZorvTest;

namespace {

const std::string kFrom = "/tmp/copy/from";
const std::string kTo = "/tmp/copy/out/to";

class ZORVFileCopy : public testing::Test {
 protected:
  ZORVFileCopy() {
    std::filesystem::create_directories("/tmp/copy/out");
    WriteFile(kFrom, "new");
    umask(0022);
  }
  ~ZORVFileCopy() override { std::filesystem::remove_all("/tmp/copy"); }

  static int Copy(const std::string& from = kFrom, const std::string& to = kTo) {
    ClearError();
    return ::ZORVFileCopy(from.c_str(), to.c_str(), 0);
  }

  // The copy fails for this reason and leaves the directory as it was.
  static void ExpectFailure(int error, const std::string& from = kFrom,
                            const std::string& to = kTo) {
    const std::set<std::string> before = Entries();
    const std::set<int> descriptors = OpenDescriptors();
    EXPECT_GT(0, Copy(from, to));
    EXPECT_EQ(error, errno);
    EXPECT_TRUE(FailedWith(0x2A00));
    EXPECT_EQ(before, Entries());
    EXPECT_EQ(descriptors, OpenDescriptors());
  }

  static std::set<std::string> Entries() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp/copy/out"))
      names.insert(entry.path().filename());
    return names;
  }
};

TEST_F(ZORVFileCopy, ContentIsCopied) {
  const struct {
    const char* name;
    std::string content;
  } kCases[] = {
      {"empty", ""},
      {"with NUL bytes", std::string("a\0b\n", 4)},
      {"one byte more than a chunk", std::string(128 * 1024 + 1, 'x')},
      {"10 MB", std::string(10 << 20, 'y')},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile(kFrom, c.content);
    EXPECT_EQ(0, Copy());
    EXPECT_TRUE(c.content == ReadFile(kTo));
    EXPECT_EQ(std::set<std::string>{"to"}, Entries());
  }
}

TEST_F(ZORVFileCopy, ReplacesTheDestinationByAnotherFile) {
  WriteFile(kTo, "old");
  const int reader = open(kTo.c_str(), O_RDONLY);
  EXPECT_EQ(0, Copy());
  char text[8] = "";
  EXPECT_EQ(3, read(reader, text, sizeof text));
  EXPECT_STREQ("old", text);  // whoever has it open reads the old file to its end
  close(reader);
  EXPECT_EQ("new", ReadFile(kTo));
}

TEST_F(ZORVFileCopy, AReaderSeesTheOldFileOrTheWholeNewOne) {
  const std::string contents[] = {std::string(1 << 20, 'a'), std::string(3 << 20, 'b')};
  WriteFile(kTo, contents[0]);
  std::atomic<bool> done{false};
  int seen[3] = {0, 0, 0};
  std::thread reader([&] {
    while (!done) {
      const std::string now = ReadFile(kTo);
      ++seen[now == contents[0] ? 0 : now == contents[1] ? 1 : 2];
    }
  });
  for (int i = 0; i < 60; ++i) {
    WriteFile(kFrom, contents[i % 2]);
    EXPECT_EQ(0, Copy());
  }
  done = true;
  reader.join();
  EXPECT_EQ(0, seen[2]);
  EXPECT_LT(0, seen[0] + seen[1]);
}

TEST_F(ZORVFileCopy, ANewDestinationHasTheSourcesPermissionsLessTheUmask) {
  const struct {
    int source, mask, result;
  } kCases[] = {{0644, 0022, 0644}, {0666, 0022, 0644}, {0666, 0077, 0600}, {0600, 0022, 0600},
                {0444, 0022, 0444}, {0755, 0000, 0755}, {06755, 0022, 0755}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << std::oct << c.source << " " << c.mask);
    ASSERT_EQ(0, chmod(kFrom.c_str(), static_cast<mode_t>(c.source)));
    umask(static_cast<mode_t>(c.mask));
    EXPECT_EQ(0, Copy());
    EXPECT_EQ(c.result, ModeOf(kTo));
    ASSERT_EQ(0, unlink(kTo.c_str()));
  }
}

TEST_F(ZORVFileCopy, AnExistingDestinationKeepsItsOwnerAndPermissions) {
  WriteFile(kTo, "old");
  ASSERT_EQ(0, chown(kTo.c_str(), 1234, 4321));
  ASSERT_EQ(0, chmod(kTo.c_str(), 0640));
  ASSERT_EQ(0, chmod(kFrom.c_str(), 0777));
  EXPECT_EQ(0, Copy());
  struct stat st;
  ASSERT_EQ(0, stat(kTo.c_str(), &st));
  EXPECT_EQ(1234u, st.st_uid);
  EXPECT_EQ(4321u, st.st_gid);
  EXPECT_EQ(0640, ModeOf(kTo));
  EXPECT_EQ("new", ReadFile(kTo));
}

TEST_F(ZORVFileCopy, ALinkAtTheDestinationIsItselfReplaced) {
  WriteFile("/tmp/copy/target", "untouched");
  ASSERT_EQ(0, symlink("/tmp/copy/target", kTo.c_str()));
  EXPECT_EQ(0, Copy());
  EXPECT_FALSE(std::filesystem::is_symlink(kTo));
  EXPECT_EQ("new", ReadFile(kTo));
  EXPECT_EQ("untouched", ReadFile("/tmp/copy/target"));
}

TEST_F(ZORVFileCopy, ALinkAsSourceIsFollowed) {
  ASSERT_EQ(0, symlink("from", "/tmp/copy/link"));
  EXPECT_EQ(0, Copy("/tmp/copy/link"));
  EXPECT_EQ("new", ReadFile(kTo));
}

TEST_F(ZORVFileCopy, AFileMayBeCopiedOntoItself) {
  WriteFile(kTo, "same");
  EXPECT_EQ(0, Copy(kTo, kTo));
  EXPECT_EQ("same", ReadFile(kTo));
}

TEST_F(ZORVFileCopy, NamesOfEveryKind) {
  for (const std::string& name : {std::string("with blank"), std::string("line\nbreak"),
                                  std::string("\xe5\x86\x99\xff"), std::string(255, 'n')}) {
    EXPECT_EQ(0, Copy(kFrom, "/tmp/copy/out/" + name));
    EXPECT_EQ("new", ReadFile("/tmp/copy/out/" + name));
  }
}

TEST_F(ZORVFileCopy, ANameInTheWorkingDirectory) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path("/tmp/copy/out");
  EXPECT_EQ(0, Copy("../from", "to"));
  std::filesystem::current_path(before);
  EXPECT_EQ("new", ReadFile(kTo));
}

TEST_F(ZORVFileCopy, SourcesThatAreNoRegularFilesFail) {
  ASSERT_EQ(0, mkfifo("/tmp/copy/fifo", 0600));
  ExpectFailure(ENOENT, "/tmp/copy/missing");
  ExpectFailure(EISDIR, "/tmp/copy");
  ExpectFailure(EINVAL, "/tmp/copy/fifo");  // and does not wait for a writer
  ExpectFailure(EINVAL, "/dev/null");
}

TEST_F(ZORVFileCopy, DestinationsThatCannotBeMadeFail) {
  std::filesystem::create_directories("/tmp/copy/out/directory");
  ExpectFailure(ENOENT, kFrom, "/tmp/copy/missing/to");
  ExpectFailure(ENOTDIR, kFrom, kFrom + "/to");
  ExpectFailure(EISDIR, kFrom, "/tmp/copy/out/directory");
  ExpectFailure(ENAMETOOLONG, kFrom, "/tmp/copy/out/" + std::string(256, 'n'));
  ExpectFailure(ENOENT, kFrom, "");
}

TEST_F(ZORVFileCopy, AFullDiskKeepsTheOldFile) {
  ASSERT_EQ(0, mount("tmpfs", "/tmp/copy/out", "tmpfs", 0, "size=256k"));
  WriteFile(kTo, "old");
  WriteFile(kFrom, std::string(1 << 20, 'x'));
  ExpectFailure(ENOSPC);
  EXPECT_EQ("old", ReadFile(kTo));
  ASSERT_EQ(0, umount("/tmp/copy/out"));
}

TEST_F(ZORVFileCopy, AFailedRenameKeepsTheOldFile) {
  WriteFile(kTo, "old");
  PlatformHook<int(const char*, const char*)> hook("rename");
  hook.AlwaysFails(0, EIO);
  ExpectFailure(EIO);
  EXPECT_EQ(1, hook.Calls());
  EXPECT_EQ("old", ReadFile(kTo));
}

TEST_F(ZORVFileCopy, TheNewFileIsOnTheDiskBeforeItTakesThePlaceAndItsDirectoryAfter) {
  SyncCalls calls;
  EXPECT_EQ(0, Copy());
  const std::vector<std::string> events = calls.Events();
  ASSERT_EQ(3u, events.size());
  EXPECT_EQ(0u, events[0].find("sync /tmp/copy/out/.zorvcopy."));
  EXPECT_EQ("rename to " + kTo, events[1]);
  EXPECT_EQ("sync /tmp/copy/out", events[2]);
}

TEST_F(ZORVFileCopy, AFailedSyncKeepsTheOldFile) {
  WriteFile(kTo, "old");
  PlatformHook<int(int)> hook("fsync");
  hook.AlwaysFails(0, EIO);
  ExpectFailure(EIO);
  EXPECT_EQ("old", ReadFile(kTo));
}

// Every reader sees the new file by then.
TEST_F(ZORVFileCopy, AFailedSyncOfTheDirectoryIsStillACopy) {
  WriteFile(kTo, "old");
  SyncCalls calls;
  calls.Fail("/tmp/copy/out", EIO);
  EXPECT_EQ(0, Copy());
  EXPECT_EQ("new", ReadFile(kTo));
}

TEST_F(ZORVFileCopy, WhatAKilledCopyLeftIsNoObstacle) {
  const std::string left = "/tmp/copy/out/.zorvcopy." + std::to_string(getpid()) + ".0";
  WriteFile(left, "left");
  EXPECT_EQ(0, Copy());
  EXPECT_EQ("new", ReadFile(kTo));
  EXPECT_EQ("left", ReadFile(left));
}

TEST_F(ZORVFileCopy, OtherFlagsAreRefused) {
  ClearError();
  EXPECT_GT(0, ::ZORVFileCopy(kFrom.c_str(), kTo.c_str(), 1));
  EXPECT_TRUE(FailedWith(0x0D00));
  EXPECT_EQ(std::set<std::string>{}, Entries());
}

}  // namespace
