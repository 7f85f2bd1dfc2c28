// What the harnesses rely on: a time that ends, and an order that is spread.
#include "tests/support/torture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

using namespace ZorvTest;

TEST(Budget, EndsWithItsPartOfTheProgramsSeconds) {
  setenv("ZORV_TORTURE_SECONDS", "100", 1);
  const Budget quarter(0.25);
  EXPECT_TRUE(quarter.IsLeft());
  EXPECT_LE(quarter.Left(), 25);
  EXPECT_GT(quarter.Left(), 0);
  setenv("ZORV_TORTURE_SECONDS", "0", 1);
  const Budget none;
  EXPECT_FALSE(none.IsLeft());
  EXPECT_EQ(0, none.Left());
  unsetenv("ZORV_TORTURE_SECONDS");
}

TEST(SpreadOrder, HasEachNumberOnce) {
  for (const size_t count : {0u, 1u, 2u, 3u, 10u, 1000u}) {
    std::vector<size_t> order = SpreadOrder(count);
    std::sort(order.begin(), order.end());
    ASSERT_EQ(count, order.size());
    for (size_t i = 0; i < count; ++i) EXPECT_EQ(i, order[i]);
  }
}

TEST(SpreadOrder, BeginsAllOverTheWhole) {
  const std::vector<size_t> order = SpreadOrder(1000);
  // Of the first 20, no two neighbours are further apart than a seventh of the whole.
  std::vector<size_t> first(order.begin(), order.begin() + 20);
  std::sort(first.begin(), first.end());
  size_t before = 0;
  for (const size_t number : first) {
    EXPECT_LE(number - before, 1000u / 7);
    before = number;
  }
  EXPECT_LE(1000 - before, 1000u / 7);
}
