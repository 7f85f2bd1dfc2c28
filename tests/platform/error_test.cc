// The error record.
#include <gtest/gtest.h>
#include <zorvplatform/share.h>

#include <string>
#include <thread>

#include "tests/platform/platform_error.h"

using namespace ZorvTest;

TEST(PLATCErrSetEx, ThreadsHaveRecordsOfTheirOwnThatStartEmpty) {
  PLATCErrSetEx(0x0900, "utils/task_status", 7);
  unsigned int code = 1, line = 1;
  std::string file = "unset";
  std::thread other([&] {
    code = PLATCErrGet();
    file = PLATCErrorGetFile();
    line = PLATCErrorGetLine();
    PLATCErrSetEx(0x2A00, "other", 9);
  });
  other.join();
  EXPECT_EQ(0u, code);
  EXPECT_EQ("", file);
  EXPECT_EQ(0u, line);
  EXPECT_EQ(0x0900u, PLATCErrGet());
  EXPECT_STREQ("utils/task_status", PLATCErrorGetFile());
  EXPECT_EQ(7u, PLATCErrorGetLine());
}

TEST(PLATCErrSetEx, LeavesErrnoAlone) {
  errno = ENOTTY;
  PLATCErrSetEx(0x0D00, "x", 1);
  EXPECT_EQ(ENOTTY, errno);
  std::thread([] {
    errno = EXDEV;
    PLATCErrSetEx(0x0D00, "x", 1);
    EXPECT_EQ(EXDEV, errno);
  }).join();
}

TEST(PLATCErrSetEx, FileTextIsCopied) {
  std::string file = "intl_utils/utils";
  PLATCErrSetEx(1, file.c_str(), 1);
  file[0] = 'X';
  EXPECT_STREQ("intl_utils/utils", PLATCErrorGetFile());
}

TEST(PLATCErrSetEx, NullFileIsTheEmptyText) {
  PLATCErrSetEx(1, "x", 1);
  PLATCErrSetEx(2, nullptr, 3);
  EXPECT_STREQ("", PLATCErrorGetFile());
  EXPECT_EQ(2u, PLATCErrGet());
}

TEST(PLATCErrSetEx, LongFileTextIsCutAt255Bytes) {
  PLATCErrSetEx(1, std::string(255, 'a').c_str(), 1);
  EXPECT_EQ(std::string(255, 'a'), PLATCErrorGetFile());
  PLATCErrSetEx(1, std::string(1000, 'b').c_str(), 1);
  EXPECT_EQ(std::string(255, 'b'), PLATCErrorGetFile());
}

TEST(PLATCErrSetEx, TheRecordsOwnTextMayBeHandedBack) {
  PLATCErrSetEx(1, "platform/process", 1);
  PLATCErrSetEx(2, PLATCErrorGetFile(), 2);
  EXPECT_STREQ("platform/process", PLATCErrorGetFile());
  PLATCErrSetEx(2, PLATCErrorGetFile() + 9, 2);
  EXPECT_STREQ("process", PLATCErrorGetFile());
}

TEST(PLATCErrGet, SuccessfulCallsLeaveTheRecord) {
  PLATCErrSetEx(0x1234, "caller", 42);
  PLATSZLIST* list = PLATCSzListAlloc(1);
  EXPECT_EQ(0, PLATCSzListPush(&list, "x"));
  EXPECT_EQ(1, PLATCFileExist("/"));
  EXPECT_EQ(0, PLATCFileExist("/no/such/file"));
  char* const argv[] = {const_cast<char*>("/bin/true"), nullptr};
  FILE* stream = PLATCPopenv("/bin/true", "r", argv);
  EXPECT_EQ(0, PLATCPclose(stream));
  PLATCSzListFree(list);
  EXPECT_EQ(0x1234u, PLATCErrGet());
  EXPECT_STREQ("caller", PLATCErrorGetFile());
  EXPECT_EQ(42u, PLATCErrorGetLine());
}

TEST(PLATCErrorGetFile, EachUnitNamesItself) {
  const struct {
    const char* unit;
    void (*fail)();
  } kCases[] = {
      {"platform/sz_list", [] { EXPECT_EQ(nullptr, PLATCSzListAlloc(0)); }},
      {"platform/sz_hash", [] { EXPECT_EQ(nullptr, PLATCSzHashAlloc(0)); }},
      {"platform/file", [] { EXPECT_GT(0, PLATCFileExist(nullptr)); }},
      {"platform/process", [] { EXPECT_EQ(nullptr, PLATCPopen("", "r")); }},
      {"platform/text", [] { EXPECT_GT(0, PLATCStrTrimSpace(nullptr)); }},
      {"platform/share", [] { EXPECT_GT(0, ZORVShareGet(nullptr, nullptr)); }},
      {"platform/volume", [] { EXPECT_GT(0, ZORVMountVolInfoGet(nullptr, nullptr)); }},
      {"platform/selector", [] { EXPECT_GT(0, ZORVShareSnapTimeSelector(nullptr, "")); }},
      {"platform/snapshot", [] { EXPECT_GT(0, ZORVShareSnapTimeGet("x", nullptr)); }},
      {"platform/file_copy", [] { EXPECT_GT(0, ZORVFileCopy("/missing", "/tmp/x", 0)); }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.unit);
    ClearError();
    c.fail();
    EXPECT_STREQ(c.unit, PLATCErrorGetFile());
    EXPECT_LT(0u, PLATCErrorGetLine());
  }
}

TEST(PLATCErrorGetText, IsEmptyUnlessThereIsMoreToSay) {
  EXPECT_STREQ("", PLATCErrorGetText());
  PLATCErrSetEx(0x0D00, "x", 1);
  EXPECT_STREQ("", PLATCErrorGetText());
}
