// PostfixPathAppend, SearchTaskFile and DeleteCandidateFile: paths by prefix.
#include <errno.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "tests/support/syscall_stepper.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::SzList;
using ZorvBtrfsUsage::SzListRef;
using ZorvBtrfsUsage::Utils;

namespace {

using PushHook = PlatformHook<decltype(PLATCSzListPush)>;
using Texts = std::vector<std::string>;

class UtilsPostfixPathAppend : public UtilsTest {
 protected:
  bool Append(const std::string& prefix, SzList& names) {
    return Utils::PostfixPathAppend(prefix, SzListRef(names), SzListRef(paths));
  }

  SzList paths = ListOf({});
};

class UtilsSearchTaskFile : public UtilsTest {
 protected:
  bool Search(const std::string& prefix, const std::string& dir = kWorkDir) {
    return Utils::SearchTaskFile(prefix, dir, SzListRef(files));
  }

  Texts Found() {
    Texts found = TextsOf(files);
    std::sort(found.begin(), found.end());
    return found;
  }

  SzList files = ListOf({});
};

class UtilsDeleteCandidateFile : public UtilsTest {
 protected:
  bool Delete(const Texts& paths) {
    SzList files = ListOf(paths);
    return Utils::DeleteCandidateFile(SzListRef(files));
  }
};

}  // namespace

TEST_F(UtilsPostfixPathAppend, JoinsInOrderBehindWhatIsThere) {
  paths = ListOf({"/first"});
  SzList names = ListOf({"b", "a", "two words"});
  EXPECT_TRUE(Append("/volume1/photos/.snapshots", names));
  EXPECT_EQ((Texts{"/first", "/volume1/photos/.snapshots/b", "/volume1/photos/.snapshots/a",
                   "/volume1/photos/.snapshots/two words"}),
            TextsOf(paths));
}

TEST_F(UtilsPostfixPathAppend, NoNamesIsASuccess) {
  SzList names = ListOf({});
  EXPECT_TRUE(Append("/volume1", names));
  EXPECT_EQ(0, paths->count);
}

TEST_F(UtilsPostfixPathAppend, LongPathsAreCut) {
  SzList names = ListOf({std::string(5000, 'n'), "%s%n"});
  EXPECT_TRUE(Append("/p", names));
  EXPECT_EQ((Texts{"/p/" + std::string(4095 - 3, 'n'), "/p/%s%n"}), TextsOf(paths));
}

TEST_F(UtilsPostfixPathAppend, FailedPushStops) {
  SzList names = ListOf({"one", "two", "three"});
  PushHook push("PLATCSzListPush");
  push.FailsOnCall(2, 0x2A00);
  EXPECT_FALSE(Append("/p", names));
  EXPECT_EQ(Texts{"/p/one"}, TextsOf(paths));
  EXPECT_EQ(2, push.Calls());
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to push [/p/two] to the list" + HookTail(0x2A00)))
      << log.Dump();
}

TEST_F(UtilsPostfixPathAppend, ANullNameFails) {
  SzList names = ListOf({"one"});
  PlatformHook<decltype(PLATCSzListGet)> entry("PLATCSzListGet");
  entry.AlwaysFails();
  EXPECT_FALSE(Append("/p", names));
  EXPECT_EQ(0, paths->count);
}

TEST_F(UtilsPostfixPathAppend, NullListsFail) {
  SzList names = ListOf({"one"});
  EXPECT_FALSE(Utils::PostfixPathAppend("/p", nullptr, SzListRef(paths)));
  PLATSZLIST* none = nullptr;
  EXPECT_FALSE(Utils::PostfixPathAppend("/p", &none, SzListRef(paths)));
  EXPECT_EQ(2, Logged(LOG_ERR, "Invaild Argument (NULL != names)=[0]\n")) << log.Dump();
  EXPECT_FALSE(Utils::PostfixPathAppend("/p", SzListRef(names), nullptr));
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to push [/p/one] to the list" + Tail())) << log.Dump();
}

TEST_F(UtilsSearchTaskFile, APlainPrefixOfRegularFiles) {
  WriteFile(At("abc.result"), "");
  WriteFile(At("abcd.result"), "");
  WriteFile(At("ab.result"), "");
  WriteFile(At("xabc.result"), "");
  std::filesystem::create_directory(At("abc"));
  EXPECT_TRUE(Search("abc"));
  EXPECT_EQ((Texts{At("abc.result"), At("abcd.result")}), Found());
}

TEST_F(UtilsSearchTaskFile, OnlyRegularFilesCount) {
  std::filesystem::create_directory(At("a-dir"));
  std::filesystem::create_symlink("a-file", At("a-link"));
  ASSERT_EQ(0, mkfifo(At("a-fifo").c_str(), 0600));
  WriteFile(At("a-file"), "");
  EXPECT_TRUE(Search("a"));
  EXPECT_EQ(Texts{At("a-file")}, Found());
}

TEST_F(UtilsSearchTaskFile, EmptyPrefixIsEveryFile) {
  WriteFile(At("one"), "");
  WriteFile(At(".two"), "");
  EXPECT_TRUE(Search(""));
  EXPECT_EQ((Texts{At(".two"), At("one")}), Found());
}

TEST_F(UtilsSearchTaskFile, ThePrefixIsComparedByteByByte) {
  WriteFile(At("a.c"), "");
  WriteFile(At("abc"), "");
  WriteFile(At("A.c"), "");
  WriteFile(At("a*"), "");
  EXPECT_TRUE(Search("a."));
  EXPECT_TRUE(Search("a*"));
  EXPECT_EQ((Texts{At("a*"), At("a.c")}), Found());
}

TEST_F(UtilsSearchTaskFile, ANameShorterThanThePrefixIsNone) {
  WriteFile(At("ab"), "");
  EXPECT_TRUE(Search("abc"));
  EXPECT_EQ(0, files->count);
}

TEST_F(UtilsSearchTaskFile, SubdirectoriesAreNotSearched) {
  WriteFile(At("sub/abc"), "");
  EXPECT_TRUE(Search("abc"));
  EXPECT_EQ(0, files->count);
}

TEST_F(UtilsSearchTaskFile, EntriesOfUnknownTypeAreLeftOut) {
  // Directories of this file system do not say what their entries are.
  const std::string image = "/tmp/no_filetype.image";
  MustRun({"truncate", "-s", "8M", image});
  MustRun({"mkfs.ext4", "-q", "-O", "^filetype", image});
  MustRun({"mount", "-o", "loop", image, kWorkDir});
  WriteFile(At("abc"), "");
  EXPECT_TRUE(Search("abc"));
  EXPECT_EQ(0, files->count);
  MustRun({"umount", kWorkDir});
  std::filesystem::remove(image);
}

TEST_F(UtilsSearchTaskFile, AppendsInTheDirectorysOrder) {
  files = ListOf({"/first"});
  Texts expected = {"/first"};
  for (int i = 0; i < 20; ++i) WriteFile(At("file" + std::to_string(i)), "");
  for (const std::string& name : Entries()) expected.push_back(At(name));
  EXPECT_TRUE(Search("file"));
  EXPECT_EQ(expected, TextsOf(files));
}

TEST_F(UtilsSearchTaskFile, MissingDirectoryHoldsNoFiles) {
  EXPECT_TRUE(Search("a", At("missing")));
  WriteFile(At("file"), "");
  EXPECT_TRUE(Search("a", At("file")));
  EXPECT_EQ(0, files->count);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsSearchTaskFile, DirectoryThatCannotBeOpenedHoldsNoFiles) {
  WriteFile(At("abc"), "");
  EXPECT_EQ(0, InChild([this] {
              const rlimit none = {0, 0};
              // Not by a member function: the sanitizer's look at its object needs a descriptor.
              const bool done = setrlimit(RLIMIT_NOFILE, &none) == 0 &&
                                Utils::SearchTaskFile("abc", kWorkDir, SzListRef(files));
              return done ? files->count : -1;
            }));
}

// What was not read of a directory must not count as not there: results would not be copied, and
// then be removed.
TEST_F(UtilsSearchTaskFile, DirectoryThatCannotBeReadFails) {
  WriteFile(At("abc"), "");
  const int status = SyscallStepper({{SYS_getdents64}, {SYS_getdents}})
                         .Run([this] { return !Search("abc") && PLATCErrGet() == 0x2A00 ? 0 : 1; },
                              [](const Step&) { return Action::Fail(EIO); });
  EXPECT_EQ(0, status);
}

TEST_F(UtilsSearchTaskFile, FailedPushStops) {
  WriteFile(At("abc"), "");
  PushHook push("PLATCSzListPush");
  push.AlwaysFails(0x2A00);
  EXPECT_FALSE(Search("abc"));
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to push [" + At("abc") + "] to the list" + HookTail(0x2A00)))
      << log.Dump();
}

TEST_F(UtilsSearchTaskFile, TheDirectoryIsClosedAgain) {
  WriteFile(At("abc"), "");
  int streams = 0;
  PlatformHook<decltype(PLATCSzListPush)> push("PLATCSzListPush");
  push.Replace([&](PLATSZLIST**, const char*) {
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd"))
      streams += std::filesystem::read_symlink(fd) == kWorkDir;
    return push.Calls() == 1 ? 0 : -1;
  });
  EXPECT_TRUE(Search("abc"));
  EXPECT_FALSE(Search("abc"));
  EXPECT_EQ(2, streams);  // open during each push, and none of the first at the second
}

TEST_F(UtilsDeleteCandidateFile, UnlinksEach) {
  WriteFile(At("one"), "");
  WriteFile(At("two"), "");
  WriteFile(At("other"), "");
  EXPECT_TRUE(Delete({At("one"), At("two")}));
  EXPECT_EQ(Texts{"other"}, Entries());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsDeleteCandidateFile, NoFilesIsASuccess) { EXPECT_TRUE(Delete({})); }

TEST_F(UtilsDeleteCandidateFile, WhatIsGoneIsSkipped) {
  WriteFile(At("two"), "");
  EXPECT_TRUE(Delete({At("one"), At("two")}));
  EXPECT_TRUE(Entries().empty());
}

TEST_F(UtilsDeleteCandidateFile, TheFirstFailureStops) {
  WriteFile(At("one"), "");
  std::filesystem::create_directory(At("dir"));
  WriteFile(At("two"), "");
  EXPECT_FALSE(Delete({At("one"), At("dir"), At("two")}));
  EXPECT_FALSE(std::filesystem::exists(At("one")));
  EXPECT_TRUE(std::filesystem::exists(At("two")));
  EXPECT_EQ(1, Logged(LOG_ERR, "Failed to unlink file (" + At("dir") + ") err:(Is a directory) "))
      << log.Dump();
}

TEST_F(UtilsDeleteCandidateFile, ANullPathFails) {
  WriteFile(At("one"), "");
  PlatformHook<decltype(PLATCSzListGet)> entry("PLATCSzListGet");
  entry.AlwaysFails();
  EXPECT_FALSE(Delete({At("one")}));
  EXPECT_TRUE(std::filesystem::exists(At("one")));
}

TEST_F(UtilsDeleteCandidateFile, NullListsFail) {
  EXPECT_FALSE(Utils::DeleteCandidateFile(nullptr));
  PLATSZLIST* none = nullptr;
  EXPECT_FALSE(Utils::DeleteCandidateFile(&none));
  EXPECT_EQ(2, Logged(LOG_ERR, "Invaild Argument (NULL != files)=[0]\n")) << log.Dump();
}
