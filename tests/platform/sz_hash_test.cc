// String hashes.
#include <gtest/gtest.h>
#include <limits.h>

#include <string>

#include "tests/platform/platform_error.h"

using namespace ZorvTest;

namespace {

struct Hash : testing::Test {
  ~Hash() override { ::PLATCSzHashFree(hash); }
  PLATSZHASH* hash = ::PLATCSzHashAlloc(16);
};

TEST(PLATCSzHashAlloc, CapacityBelowOneIsRefused) {
  for (const int capacity : {0, -1, INT_MIN}) {
    SCOPED_TRACE(capacity);
    ClearError();
    EXPECT_EQ(nullptr, ::PLATCSzHashAlloc(capacity));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
}

TEST(PLATCSzHashAlloc, CapacityIsOnlyAHint) {
  PLATSZHASH* hash = ::PLATCSzHashAlloc(1);
  for (int i = 0; i < 1000; ++i) {
    const std::string text = std::to_string(i);
    ASSERT_EQ(0, ::PLATCSzHashSetValue(&hash, text.c_str(), text.c_str()));
  }
  EXPECT_STREQ("999", ::PLATCSzHashGetValue(hash, "999"));
  EXPECT_STREQ("0", ::PLATCSzHashGetValue(hash, "0"));
  ::PLATCSzHashFree(hash);
}

struct PLATCSzHashSetValue : Hash {};

TEST_F(PLATCSzHashSetValue, LaterValueReplacesEarlier) {
  EXPECT_EQ(0, ::PLATCSzHashSetValue(&hash, "key", "one"));
  EXPECT_EQ(0, ::PLATCSzHashSetValue(&hash, "key", "two"));
  EXPECT_STREQ("two", ::PLATCSzHashGetValue(hash, "key"));
  EXPECT_EQ(0, ::PLATCSzHashSetValue(&hash, "key", nullptr));
  EXPECT_EQ(nullptr, ::PLATCSzHashGetValue(hash, "key"));
}

TEST_F(PLATCSzHashSetValue, KeyAndValueAreCopied) {
  char key[] = "key";
  char value[] = "value";
  ::PLATCSzHashSetValue(&hash, key, value);
  key[0] = value[0] = 'X';
  EXPECT_STREQ("value", ::PLATCSzHashGetValue(hash, "key"));
}

TEST_F(PLATCSzHashSetValue, AValueOfTheHashMayBeSetAgain) {
  ::PLATCSzHashSetValue(&hash, "key", "value");
  EXPECT_EQ(0, ::PLATCSzHashSetValue(&hash, "key", ::PLATCSzHashGetValue(hash, "key")));
  EXPECT_STREQ("value", ::PLATCSzHashGetValue(hash, "key"));
}

struct PLATCSzHashGetValue : Hash {};

TEST_F(PLATCSzHashGetValue, MissingKeyAndKeyWithoutValueAreNullWithoutAnError) {
  ::PLATCSzHashSetValue(&hash, "bare", nullptr);
  ClearError();
  EXPECT_EQ(nullptr, ::PLATCSzHashGetValue(hash, "bare"));
  EXPECT_EQ(nullptr, ::PLATCSzHashGetValue(hash, "missing"));
  EXPECT_EQ(0u, ::PLATCErrGet());
}

TEST_F(PLATCSzHashGetValue, EmptyValueIsNoMissingOne) {
  ::PLATCSzHashSetValue(&hash, "", "");
  EXPECT_STREQ("", ::PLATCSzHashGetValue(hash, ""));
}

struct PLATCSzHashEnumKey : Hash {};

TEST_F(PLATCSzHashEnumKey, AppendsAllKeysInTheOrderOfTheirBytes) {
  for (const char* key : {"b", "\xc3\xa4", "a", "B", ""}) ::PLATCSzHashSetValue(&hash, key, key);
  ::PLATCSzHashSetValue(&hash, "bare", nullptr);
  PLATSZLIST* keys = ::PLATCSzListAlloc(1);
  ::PLATCSzListPush(&keys, "before");
  EXPECT_EQ(6, ::PLATCSzHashEnumKey(hash, &keys));
  EXPECT_EQ((std::vector<std::string>{"before", "", "B", "a", "b", "bare", "\xc3\xa4"}),
            Texts(keys));
  ::PLATCSzListFree(keys);
}

TEST_F(PLATCSzHashEnumKey, EmptyHashHasNone) {
  PLATSZLIST* keys = ::PLATCSzListAlloc(1);
  EXPECT_EQ(0, ::PLATCSzHashEnumKey(hash, &keys));
  EXPECT_EQ(0, keys->count);
  ::PLATCSzListFree(keys);
}

TEST(PLATCSzHashFree, NullIsAllowed) {
  ClearError();
  ::PLATCSzHashFree(nullptr);
  EXPECT_EQ(0u, ::PLATCErrGet());
}

}  // namespace
