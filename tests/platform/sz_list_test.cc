// String lists.
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include <string>

#include "tests/platform/platform_error.h"

using namespace ZorvTest;

TEST(PLATCSzListAlloc, ListIsEmptyAndHasTheCapacity) {
  PLATSZLIST* list = PLATCSzListAlloc(1024);
  ASSERT_NE(nullptr, list);
  EXPECT_EQ(1024, list->capacity);
  EXPECT_EQ(0, list->count);
  PLATCSzListFree(list);
}

TEST(PLATCSzListAlloc, CapacityBelowOneIsRefused) {
  for (const int capacity : {0, -1, INT_MIN}) {
    SCOPED_TRACE(capacity);
    ClearError();
    EXPECT_EQ(nullptr, PLATCSzListAlloc(capacity));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
}

TEST(PLATCSzListPush, GrowsAndKeepsTheOrder) {
  PLATSZLIST* list = PLATCSzListAlloc(1);
  for (int i = 0; i < 5000; ++i) EXPECT_EQ(i, PLATCSzListPush(&list, std::to_string(i).c_str()));
  ASSERT_EQ(5000, list->count);
  EXPECT_LE(5000, list->capacity);
  for (int i = 0; i < 5000; ++i) EXPECT_EQ(std::to_string(i), PLATCSzListGet(list, i));
  PLATCSzListFree(list);
}

TEST(PLATCSzListPush, TextIsCopied) {
  PLATSZLIST* list = PLATCSzListAlloc(1);
  char text[] = "name";
  PLATCSzListPush(&list, text);
  text[0] = 'X';
  EXPECT_STREQ("name", PLATCSzListGet(list, 0));
  PLATCSzListFree(list);
}

TEST(PLATCSzListPush, BytesAreKeptAsTheyAre) {
  const std::string texts[] = {"",
                               " ",
                               "a b",
                               "line\nbreak",
                               "\xff\xfe",
                               "\xe5\x86\x99\xe7\x9c\x9f",
                               std::string(100000, 'x')};
  PLATSZLIST* list = PLATCSzListAlloc(1);
  for (const std::string& text : texts) {
    ASSERT_LE(0, PLATCSzListPush(&list, text.c_str()));
    EXPECT_EQ(text, PLATCSzListGet(list, list->count - 1));
  }
  PLATCSzListFree(list);
}

TEST(PLATCSzListGet, NoSuchElementIsNull) {
  PLATSZLIST* list = PLATCSzListAlloc(4);
  PLATCSzListPush(&list, "only");
  for (const int index : {-1, 1, 2, INT_MAX, INT_MIN}) {
    SCOPED_TRACE(index);
    ClearError();
    EXPECT_EQ(nullptr, PLATCSzListGet(list, index));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
  PLATCSzListFree(list);
}

TEST(PLATCSzListRemoveAll, ListIsEmptyAndCanBeFilledAgain) {
  PLATSZLIST* list = PLATCSzListAlloc(1);
  for (const char* text : {"a", "b", "c"}) PLATCSzListPush(&list, text);
  const int capacity = list->capacity;
  PLATCSzListRemoveAll(list);
  EXPECT_EQ(0, list->count);
  EXPECT_EQ(capacity, list->capacity);
  EXPECT_EQ(nullptr, PLATCSzListGet(list, 0));
  EXPECT_EQ(0, PLATCSzListPush(&list, "d"));
  EXPECT_STREQ("d", PLATCSzListGet(list, 0));
  PLATCSzListFree(list);
}

TEST(PLATCSzListFree, NullIsAllowed) {
  ClearError();
  PLATCSzListFree(nullptr);
  EXPECT_EQ(0u, PLATCErrGet());
}
