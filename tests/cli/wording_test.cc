// Counts, and names in commands that are to be copied.
#include "cli/wording.h"

#include <gtest/gtest.h>

using namespace ZorvSnapUsage;

TEST(CountOf, OneAndMany) {
  EXPECT_EQ("0 snapshots", CountOf(0, "snapshot"));
  EXPECT_EQ("1 snapshot", CountOf(1, "snapshot"));
  EXPECT_EQ("12 files", CountOf(12, "file"));
  EXPECT_EQ("the only snapshot", AllOf(1, "snapshot"));
  EXPECT_EQ("all 3 snapshots", AllOf(3, "snapshot"));
}

TEST(ShareWord, IsTakenForNoOption) {
  EXPECT_EQ("photos", ShareWord("photos"));
  EXPECT_EQ("'my photos'", ShareWord("my photos"));
  EXPECT_EQ("-- -x", ShareWord("-x"));
  EXPECT_EQ("''", ShareWord(""));
}

TEST(OptionWords, AreTakenForNoOther) {
  EXPECT_EQ("--keep a", OptionWords("--keep", "a"));
  EXPECT_EQ("--keep 'by hand'", OptionWords("--keep", "by hand"));
  EXPECT_EQ("--keep=-a", OptionWords("--keep", "-a"));
}
