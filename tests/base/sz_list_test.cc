// SzList owns a platform list; SzListRef lends it.
#include "base/sz_list.h"

#include <gtest/gtest.h>

#include "tests/support/platform_hook.h"

using namespace ZorvBtrfsUsage;
using ZorvTest::PlatformHook;

TEST(SzList, StartsEmptyWithTheCommonCapacity) {
  const SzList list = MakeSzList();
  ASSERT_TRUE(list);
  EXPECT_EQ(1024, list->capacity);
  EXPECT_EQ(0, list->count);
}

TEST(SzList, IsNullWhenThereIsNoList) {
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.AlwaysFails();
  EXPECT_FALSE(MakeSzList());
}

TEST(SzListRef, GivesTheListBack) {
  SzList list = MakeSzList();
  ASSERT_EQ(0, PLATCSzListPush(SzListRef(list), "one"));
  ASSERT_TRUE(list);
  EXPECT_STREQ("one", PLATCSzListGet(list.get(), 0));
}

TEST(SzListRef, TakesAListThatWasPutInItsPlace) {
  SzList list = MakeSzList();
  PLATSZLIST* other = PLATCSzListAlloc(1);
  {
    SzListRef ref(list);
    PLATSZLIST** slot = ref;
    PLATCSzListFree(*slot);
    *slot = other;
  }
  EXPECT_EQ(other, list.get());
}
