// Times in snapshot names, and the conditions on them.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <zorvplatform/share.h>

#include <string>

#include "tests/platform/platform_error.h"

using namespace ZorvTest;

namespace {

constexpr time_t kMarch5 = 1709629449;  // 2024-03-05 09:04:09 UTC

std::string gArguments;

int Remember(const char* snapName, const char* argument) {
  gArguments += std::string(snapName) + ":" + argument + " ";
  return 1;
}

}  // namespace

TEST(ZORVShareSnapTimeGet, EveryFormOfAName) {
  const struct {
    const char* name;
    time_t time;
  } kCases[] = {
      {"GMT-2024.03.05-09.04.09", kMarch5},
      {"@GMT-2024.03.05-09.04.09", kMarch5},
      {"GMT+08-2024.03.05-17.04.09", kMarch5},
      {"@GMT+08-2024.03.05-17.04.09", kMarch5},
      {"GMT+0800-2024.03.05-17.04.09", kMarch5},
      {"GMT+0530-2024.03.05-14.34.09", kMarch5},
      {"GMT-0330-2024.03.05-05.34.09", kMarch5},
      {"GMT-08-2024.03.05-01.04.09", kMarch5},
      {"GMT+00-2024.03.05-09.04.09", kMarch5},
      {"GMT-00-2024.03.05-09.04.09", kMarch5},
      {"GMT+14-2024.03.05-23.04.09", kMarch5},
      {"GMT-12-2024.03.04-21.04.09", kMarch5},
      {"GMT+0545-2024.03.05-14.49.09", kMarch5},
      {"GMT-1970.01.01-00.00.00", 0},
      {"GMT-05-1969.12.31-19.00.00", 0},
      {"GMT-1969.12.31-23.59.59", -1},
      {"GMT-0001.01.01-00.00.00", -62135596800},
      {"GMT-9999.12.31-23.59.59", 253402300799},
      {"GMT-10000.01.01-00.00.00", 253402300800},
      {"GMT-2024.02.29-00.00.00", 1709164800},
      {"GMT-2000.02.29-00.00.00", 951782400},
      {"GMT-2038.01.19-03.14.08", 2147483648},
      {"GMT-2024.03.05-09.04.09-1", kMarch5},
      {"@GMT+08-2024.03.05-17.04.09-20", kMarch5},
      {"GMT-2024.03.05-09.04.09-9999999999999999999", kMarch5},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    time_t time = 12345;
    EXPECT_EQ(0, ZORVShareSnapTimeGet(c.name, &time));
    EXPECT_EQ(c.time, time);
  }
}

TEST(ZORVShareSnapTimeGet, ZoneOfTheProcessDoesNotMatter) {
  for (const char* zone : {"UTC", "Asia/Taipei", "America/St_Johns", ":garbage"}) {
    setenv("TZ", zone, 1);
    tzset();
    time_t time = 0;
    EXPECT_EQ(0, ZORVShareSnapTimeGet("GMT+08-2024.03.05-17.04.09", &time));
    EXPECT_EQ(kMarch5, time);
  }
  unsetenv("TZ");
  tzset();
}

TEST(ZORVShareSnapTimeGet, NamesWithoutATimeAreRefused) {
  const char* const kNames[] = {
      "", "@", "GMT", "GMT-", "before-upgrade", "gmt-2024.03.05-09.04.09",
      "@@GMT-2024.03.05-09.04.09", " GMT-2024.03.05-09.04.09", "GMT-2024.03.05-09.04.09 ",
      "GMT-2024.03.05-09.04.09\n", "GMT-2024.03.05-09.04.091", "GMT-2024.03.05-09.04.9",
      "GMT-2024.03.05-09.04", "GMT-2024.03.05", "GMT-2024-03-05-09.04.09",
      "GMT-2024.03.05-09.04.09-", "GMT-2024.03.05-09.04.09-0", "GMT-2024.03.05-09.04.09-012",
      "GMT-2024.03.05-09.04.09-12a", "GMT-2024.03.05-09.04.09--1", "GMT-2024.03.05-09.04.09-1-2",
      "GMT-2024.03.05-09.04.09-99999999999999999999", "GMT-2024.02.30-09.04.09-1",
      "GMT-2024.03.05_09.04.09", "GMT-2024.3.05-09.04.09", "GMT-24.03.05-09.04.09",
      "GMT-024.03.05-09.04.09", "GMT-+2024.03.05-09.04.09", "GMT--2024.03.05-09.04.09",
      "GMT+2024.03.05-09.04.09", "GMT+8-2024.03.05-17.04.09", "GMT+080-2024.03.05-17.04.09",
      "GMT+08:00-2024.03.05-17.04.09", "GMT+08000-2024.03.05-17.04.09",
      "GMT+25-2024.03.05-17.04.09", "GMT+0860-2024.03.05-17.04.09", "GMT+08.2024.03.05-17.04.09",
      "GMT+-08-2024.03.05-17.04.09", "GMT+082024.03.05-17.04.09", "GMTx-2024.03.05-09.04.09",
      "GMT-1234567890.03.05-09.04.09", "GMT-2024.03.05-09.04.\xef\xbc\x99",
      // dates that no calendar has
      "GMT-2024.00.05-09.04.09", "GMT-2024.13.05-09.04.09", "GMT-2024.03.00-09.04.09",
      "GMT-2024.03.32-09.04.09", "GMT-2024.04.31-09.04.09", "GMT-2023.02.29-09.04.09",
      "GMT-1900.02.29-09.04.09", "GMT-2024.02.30-09.04.09", "GMT-2024.03.05-24.00.00",
      "GMT-2024.03.05-09.60.09", "GMT-2024.03.05-09.04.60", "GMT+08-2024.02.30-09.04.09"};
  for (const char* name : kNames) {
    SCOPED_TRACE(name);
    time_t time = 12345;
    ClearError();
    EXPECT_GT(0, ZORVShareSnapTimeGet(name, &time));
    EXPECT_TRUE(FailedWith(0x0D00));
    EXPECT_EQ(12345, time);
    EXPECT_EQ(0, ZORVShareSnapTimeSelector(name, ">=GMT-0001.01.01-00.00.00"));
    ClearError();
    EXPECT_GT(0, ZORVShareSnapTimeSelector("GMT-2024.03.05-09.04.09",
                                           (std::string(">=") + name).c_str()));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
}

TEST(ZORVShareSnapTimeSelector, OperatorsAtTheBoundarySecond) {
  const char* const before = "GMT+0530-2024.03.05-14.34.08";
  const char* const at = "@GMT-0330-2024.03.05-05.34.09";
  const char* const after = "GMT-2024.03.05-09.04.10";
  const struct {
    const char* op;
    int before, at, after;
  } kCases[] = {{">=", 0, 1, 1}, {"<=", 1, 1, 0}, {">", 0, 0, 1}, {"<", 1, 0, 0}, {"=", 0, 1, 0}};
  for (const auto& c : kCases) {
    for (const char* name : {"GMT+08-2024.03.05-17.04.09", "@GMT-2024.03.05-09.04.09"}) {
      const std::string argument = std::string(c.op) + name;
      SCOPED_TRACE(argument);
      EXPECT_EQ(c.before, ZORVShareSnapTimeSelector(before, argument.c_str()));
      EXPECT_EQ(c.at, ZORVShareSnapTimeSelector(at, argument.c_str()));
      EXPECT_EQ(c.after, ZORVShareSnapTimeSelector(after, argument.c_str()));
    }
  }
}

// The hour that comes twice at the end of summer time: the names say which of the two it is.
TEST(ZORVShareSnapTimeSelector, ZonesTellTheHoursThatComeTwiceApart) {
  const char* const first = "GMT+02-2024.10.27-02.30.00";
  const char* const second = "GMT+01-2024.10.27-02.30.00";
  EXPECT_EQ(1, ZORVShareSnapTimeSelector(first, "<GMT+01-2024.10.27-02.30.00"));
  EXPECT_EQ(0, ZORVShareSnapTimeSelector(second, "<GMT+01-2024.10.27-02.30.00"));
  EXPECT_EQ(0, ZORVShareSnapTimeSelector(first, ">GMT+02-2024.10.27-02.30.00"));
  EXPECT_EQ(1, ZORVShareSnapTimeSelector(second, ">GMT+02-2024.10.27-02.30.00"));
  EXPECT_EQ(1, ZORVShareSnapTimeSelector(second, "=GMT-2024.10.27-01.30.00"));
}

TEST(ZORVShareSnapTimeSelector, OtherArgumentsAreErrors) {
  for (const char* argument :
       {"", "=", ">=", "GMT-2024.03.05-09.04.09", "==GMT-2024.03.05-09.04.09",
        "!=GMT-2024.03.05-09.04.09", "=>GMT-2024.03.05-09.04.09", "> GMT-2024.03.05-09.04.09",
        ">=today", ">=2024.03.05-09.04.09", ">=1709629449", ">>GMT-2024.03.05-09.04.09",
        ">=GMT-2024.03.05-09.04.09,<=GMT-2024.03.06-09.04.09"}) {
    SCOPED_TRACE(argument);
    for (const char* name : {"GMT-2024.03.05-09.04.09", "before-upgrade"}) {
      ClearError();
      EXPECT_GT(0, ZORVShareSnapTimeSelector(name, argument));
      EXPECT_TRUE(FailedWith(0x0D00));
    }
    ZORVSHARESNAPSELECTOR* selectors = nullptr;
    ClearError();
    EXPECT_GT(0, ZORVShareSnapSelectorAdd(&selectors, ZORVShareSnapTimeSelector, argument));
    EXPECT_TRUE(FailedWith(0x0D00));
    EXPECT_EQ(nullptr, selectors);
  }
}

TEST(ZORVShareSnapSelectorAdd, ChainStaysAsItWasWhenAnArgumentIsRefused) {
  ZORVSHARESNAPSELECTOR* selectors = nullptr;
  ASSERT_EQ(0, ZORVShareSnapSelectorAdd(&selectors, ZORVShareSnapTimeSelector,
                                        ">=GMT-2024.03.05-09.04.09"));
  ZORVSHARESNAPSELECTOR* const chain = selectors;
  EXPECT_GT(0, ZORVShareSnapSelectorAdd(&selectors, ZORVShareSnapTimeSelector, "nonsense"));
  EXPECT_EQ(chain, selectors);
  ZORVShareSnapEnumFree(selectors);
}

TEST(ZORVShareSnapSelectorAdd, AnotherFunctionTakesAnyArgument) {
  ZORVSHARESNAPSELECTOR* selectors = nullptr;
  EXPECT_EQ(0, ZORVShareSnapSelectorAdd(&selectors, Remember, "any text"));
  EXPECT_NE(nullptr, selectors);
  ZORVShareSnapEnumFree(selectors);
  EXPECT_EQ("", gArguments);  // nothing is asked before there is a snapshot
}
