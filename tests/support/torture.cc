#include "tests/support/torture.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "tests/support/command.h"

namespace ZorvTest {
namespace {

constexpr double kSecondsUntold = 20;

double SecondsOfProgram() {
  const char* const told = getenv("ZORV_TORTURE_SECONDS");
  return told == nullptr ? kSecondsUntold : strtod(told, nullptr);
}

}  // namespace

Budget::Budget(double part) : end_(Seconds() + part * SecondsOfProgram()) {}

bool Budget::IsLeft() const { return Left() > 0; }

double Budget::Left() const { return std::max(0.0, end_ - Seconds()); }

// Multiples of the golden ratio, taken modulo one, fill an interval evenly at every moment.
std::vector<size_t> SpreadOrder(size_t count) {
  constexpr double kGoldenRatio = 0.6180339887498949;
  std::vector<double> places(count);
  for (size_t i = 0; i < count; ++i) {
    const double multiple = static_cast<double>(i) * kGoldenRatio;
    places[i] = multiple - std::floor(multiple);
  }
  std::vector<size_t> byPlace(count);
  std::iota(byPlace.begin(), byPlace.end(), 0);
  std::sort(byPlace.begin(), byPlace.end(),
            [&](size_t a, size_t b) { return places[a] < places[b]; });
  // byPlace[r] is the turn of number r.
  std::vector<size_t> order(count);
  for (size_t number = 0; number < count; ++number) order[byPlace[number]] = number;
  return order;
}

void Figure(const std::string& what, unsigned long long count) {
  testing::Test::RecordProperty("figure: " + what, std::to_string(count));
}

}  // namespace ZorvTest
