// What a progress line says, and how it fits its terminal.
#include "cli/progress_line.h"

#include <gtest/gtest.h>

#include "cli/text.h"

using namespace ZorvSnapUsage;

namespace {

constexpr unsigned long long kMiB = 1 << 20;

ProgressView HalfWay() {
  ProgressView view;
  view.share = "photos";
  view.state = "process";
  view.readBytes = 450 * kMiB;
  view.exclusiveBytes = 3 * kMiB;
  view.totalBytes = 1000 * kMiB;
  view.bytesPerSecond = 11.0 * kMiB;
  view.elapsedSeconds = 41;
  return view;
}

TEST(BarLine, HasEverythingWhereThereIsRoom) {
  EXPECT_EQ(
      "45 % [#################.....................]  0:51 left  450.00 MiB  11.00 MiB/s  photos",
      BarLine(HalfWay(), 99));
}

TEST(BarLine, LeavesOutWhatHasNoRoom) {
  const struct {
    size_t columns;
    const char* line;
  } cases[] = {
      {79, "45 % [########.............]  0:51 left  450.00 MiB  11.00 MiB/s  photos"},
      {60, "45 % [####......]  0:51 left  450.00 MiB  11.00 MiB/s  photos"},
      {50, "45 %  0:51 left  450.00 MiB  11.00 MiB/s  photos"},
      {40, "45 %  0:51 left  450.00 MiB  11.00 MiB/s"},
      {30, "45 %  0:51 left  450.00 MiB"},
      {19, "45 %  0:51 left"},
      {10, "45 %"},
      {3, "45 "},
      {0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.columns);
    const std::string line = BarLine(HalfWay(), c.columns);
    EXPECT_EQ(std::string(c.line).substr(0, 5), line.substr(0, 5));
    EXPECT_LE(ColumnsAtMost(line), c.columns);
  }
}

TEST(BarLine, FitsEveryWidth) {
  const std::string names[] = {
      "photos", "a name that is as long as names of shares can be " + std::string(200, 'x'),
      "Fotos für 写真 und noch viel mehr 写真写真写真", "\x1b[31m\n"};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    for (const bool estimated : {true, false}) {
      ProgressView view = HalfWay();
      view.share = name;
      if (!estimated) view.totalBytes.reset();
      for (size_t columns = 0; columns <= 200; ++columns) {
        const std::string line = BarLine(view, columns);
        ASSERT_LE(ColumnsAtMost(line), columns) << line;
        ASSERT_EQ(std::string::npos, line.find_first_of("\x1b\n")) << line;
        if (!estimated || columns < 19) continue;
        ASSERT_EQ(0u, line.find("45 %")) << line;
      }
    }
  }
}

TEST(BarLine, LongNameKeepsItsBeginningBesideTheBar) {
  ProgressView view = HalfWay();
  view.share = "a long name of a share that goes on and on";
  const std::string line = BarLine(view, 79);
  EXPECT_NE(std::string::npos, line.find(" [")) << line;
  EXPECT_NE(std::string::npos, line.find("  a long na")) << line;
  EXPECT_EQ("...", line.substr(line.size() - 3)) << line;
}

TEST(BarLine, WithoutAnEstimateThereIsNoBar) {
  ProgressView view = HalfWay();
  view.totalBytes.reset();
  view.bytesPerSecond.reset();
  EXPECT_EQ("process: read 450.00 MiB, exclusive so far 3.00 MiB, 0:41  photos", BarLine(view, 99));
}

TEST(LogLine, SaysWhatTheBarDoes) {
  EXPECT_EQ(
      "process: 45 %, read 450.00 MiB, exclusive so far 3.00 MiB, 0:41, 11.00 MiB/s, 0:51 left  "
      "photos",
      LogLine(HalfWay()));
}

TEST(PercentOf, IsNeverTheEnd) {
  const struct {
    unsigned long long read;
    unsigned long long total;
    int percent;
  } cases[] = {{0, 100, 0},      {1, 1000, 0},     {10, 1000, 1},  {999, 1000, 99},
               {1000, 1000, 99}, {5000, 1000, 99}, {~0ull, 1, 99}, {1, ~0ull, 0}};
  for (const auto& c : cases) {
    ProgressView view;
    view.readBytes = c.read;
    view.totalBytes = c.total;
    EXPECT_EQ(c.percent, PercentOf(view).value_or(-1)) << c.read << " of " << c.total;
  }
  ProgressView view;
  EXPECT_FALSE(PercentOf(view)) << "no estimate";
  view.totalBytes = 0;
  EXPECT_FALSE(PercentOf(view)) << "an estimate of nothing";
}

TEST(RateTest, OfTheLastSeconds) {
  using std::chrono::seconds;
  const Rate::Time begin;
  Rate rate;
  EXPECT_FALSE(rate.BytesPerSecond());
  rate.Add(begin, 0);
  rate.Add(begin + std::chrono::milliseconds(500), 100);
  EXPECT_FALSE(rate.BytesPerSecond()) << "too early";
  rate.Add(begin + seconds(2), 200);
  EXPECT_DOUBLE_EQ(100, rate.BytesPerSecond().value_or(0));
  for (int i = 3; i <= 40; ++i) rate.Add(begin + seconds(i), 200 + 1000ull * (i - 2));
  EXPECT_DOUBLE_EQ(1000, rate.BytesPerSecond().value_or(0)) << "what was before is forgotten";
  for (int i = 41; i <= 60; ++i) rate.Add(begin + seconds(i), 38200);
  EXPECT_FALSE(rate.BytesPerSecond()) << "nothing moves";
  rate.Add(begin + seconds(61), 5);
  EXPECT_FALSE(rate.BytesPerSecond()) << "counted anew";
}

}  // namespace
