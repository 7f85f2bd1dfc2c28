// Bounds of raw bytes.
#include "engine/ondisk/byte_view.h"

#include <gtest/gtest.h>

#include "engine/ondisk/le.h"

using namespace ZorvEngine;

namespace {
const uint8_t kRaw[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
const ByteView kView(kRaw, sizeof kRaw);
}  // namespace

TEST(ByteViewAt, GivesWhatFits) {
  ASSERT_NE(nullptr, kView.At<Le32>(12));
  EXPECT_EQ(0x0F0E0D0Cu, kView.At<Le32>(12)->Get());
  EXPECT_NE(nullptr, kView.At<Le32>(0, 4));
  EXPECT_NE(nullptr, kView.At<Le64>(16, 0));
}

TEST(ByteViewAt, RefusesWhatDoesNotFit) {
  EXPECT_EQ(nullptr, kView.At<Le32>(13));
  EXPECT_EQ(nullptr, kView.At<Le32>(0, 5));
  EXPECT_EQ(nullptr, kView.At<Le8>(16));
  EXPECT_EQ(nullptr, kView.At<Le8>(17, 0));
}

TEST(ByteViewAt, DoesNotWrapAround) {
  EXPECT_EQ(nullptr, kView.At<Le64>(SIZE_MAX));
  EXPECT_EQ(nullptr, kView.At<Le64>(SIZE_MAX - 3));
  EXPECT_EQ(nullptr, kView.At<Le64>(8, SIZE_MAX));
  EXPECT_EQ(nullptr, kView.At<Le64>(0, SIZE_MAX / 8 + 2));
}

TEST(ByteViewAt, OfNothingIsNull) { EXPECT_EQ(nullptr, ByteView().At<Le8>(0)); }

TEST(ByteViewSub, KeepsInsideAndLeavesTheOutputAloneElsewhere) {
  ByteView part;
  ASSERT_TRUE(kView.Sub(4, 12, &part));
  EXPECT_EQ(12u, part.Size());
  EXPECT_EQ(4, part.Data()[0]);
  EXPECT_FALSE(kView.Sub(4, 13, &part));
  EXPECT_FALSE(kView.Sub(17, 0, &part));
  EXPECT_FALSE(kView.Sub(SIZE_MAX, 2, &part));
  EXPECT_EQ(12u, part.Size());
}
