// File tests and the directory listing.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/unique_fd.h"
#include "tests/platform/platform_error.h"
#include "tests/support/command.h"

using namespace ZorvTest;
using Names = std::vector<std::string>;

namespace {

struct FileTree : testing::Test {
  FileTree() { std::filesystem::create_directories("/tmp/tree/dir"); }
  ~FileTree() override { std::filesystem::remove_all("/tmp/tree"); }
};

struct NameList {
  NameList() { ::PLATCSzListPush(&list, "before"); }
  ~NameList() { ::PLATCSzListFree(list); }
  PLATSZLIST* list = ::PLATCSzListAlloc(1);
};

struct PLATCFileExist : FileTree {};

TEST_F(PLATCFileExist, OneForWhatIsThereAndZeroForWhatIsNot) {
  WriteFile("/tmp/tree/file", "");
  ASSERT_EQ(0, symlink("file", "/tmp/tree/link"));
  ASSERT_EQ(0, symlink("missing", "/tmp/tree/dangling"));
  ASSERT_EQ(0, symlink("loop", "/tmp/tree/loop"));
  EXPECT_EQ(1, ::PLATCFileExist("/tmp/tree/file"));
  EXPECT_EQ(1, ::PLATCFileExist("/tmp/tree/dir"));
  EXPECT_EQ(1, ::PLATCFileExist("/tmp/tree/link"));
  EXPECT_EQ(0, ::PLATCFileExist("/tmp/tree/dangling"));
  EXPECT_EQ(0, ::PLATCFileExist("/tmp/tree/loop"));
  EXPECT_EQ(0, ::PLATCFileExist("/tmp/tree/missing"));
  EXPECT_EQ(0, ::PLATCFileExist("/tmp/tree/file/below"));
  EXPECT_EQ(0, ::PLATCFileExist(""));
}

struct PLATCFileCheckDir : FileTree {};

TEST_F(PLATCFileCheckDir, OneForDirectoriesAlone) {
  WriteFile("/tmp/tree/file", "");
  ASSERT_EQ(0, symlink("dir", "/tmp/tree/link"));
  ASSERT_EQ(0, symlink("file", "/tmp/tree/fileLink"));
  EXPECT_EQ(1, ::PLATCFileCheckDir("/tmp/tree/dir"));
  EXPECT_EQ(1, ::PLATCFileCheckDir("/tmp/tree/link"));
  EXPECT_EQ(0, ::PLATCFileCheckDir("/tmp/tree/file"));
  EXPECT_EQ(0, ::PLATCFileCheckDir("/tmp/tree/fileLink"));
  EXPECT_EQ(0, ::PLATCFileCheckDir("/tmp/tree/missing"));
}

struct PLATCFileEnumDir : FileTree {};

TEST_F(PLATCFileEnumDir, EverythingThatIsNoDirectoryInTheOrderOfBytes) {
  WriteFile("/tmp/tree/b", "");
  WriteFile("/tmp/tree/a", "");
  WriteFile("/tmp/tree/.hidden", "");
  WriteFile("/tmp/tree/with blank", "");
  WriteFile("/tmp/tree/line\nbreak", "");
  WriteFile("/tmp/tree/\xe5\x86\x99", "");
  WriteFile("/tmp/tree/dir/below", "");
  ASSERT_EQ(0, symlink("dir", "/tmp/tree/linkToDir"));
  ASSERT_EQ(0, mkfifo("/tmp/tree/fifo", 0600));
  NameList names;
  EXPECT_EQ(8, ::PLATCFileEnumDir("/tmp/tree", 0, &names.list, 128));
  EXPECT_EQ((Names{"before", ".hidden", "a", "b", "fifo", "line\nbreak", "linkToDir", "with blank",
                   "\xe5\x86\x99"}),
            Texts(names.list));
}

TEST_F(PLATCFileEnumDir, EmptyDirectoryHasNone) {
  NameList names;
  EXPECT_EQ(0, ::PLATCFileEnumDir("/tmp/tree/dir", 0, &names.list, 128));
  EXPECT_EQ(Names{"before"}, Texts(names.list));
}

TEST_F(PLATCFileEnumDir, ManyEntries) {
  for (int i = 0; i < 3000; ++i) WriteFile("/tmp/tree/dir/" + std::to_string(i), "");
  NameList names;
  EXPECT_EQ(3000, ::PLATCFileEnumDir("/tmp/tree/dir", 0, &names.list, 128));
  EXPECT_EQ(3001, names.list->count);
}

TEST_F(PLATCFileEnumDir, WhatCannotBeListedIsNegative) {
  WriteFile("/tmp/tree/file", "");
  const struct {
    const char* name;
    const char* path;
    int error;
  } kCases[] = {
      {"missing", "/tmp/tree/missing", ENOENT},
      {"a file", "/tmp/tree/file", ENOTDIR},
      {"empty path", "", ENOENT},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    NameList names;
    ClearError();
    EXPECT_GT(0, ::PLATCFileEnumDir(c.path, 0, &names.list, 128));
    EXPECT_EQ(c.error, errno);
    EXPECT_TRUE(FailedWith(0x2A00));
    EXPECT_EQ(Names{"before"}, Texts(names.list));
  }
}

TEST_F(PLATCFileEnumDir, OtherFlagsAndTypesAreRefused) {
  NameList names;
  ClearError();
  EXPECT_GT(0, ::PLATCFileEnumDir("/tmp/tree", 1, &names.list, 128));
  EXPECT_TRUE(FailedWith(0x0D00));
  ClearError();
  EXPECT_GT(0, ::PLATCFileEnumDir("/tmp/tree", 0, &names.list, 4));
  EXPECT_TRUE(FailedWith(0x0D00));
}

}  // namespace
