#include "cli/progress_line.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "cli/text.h"
#include "cli/units.h"

namespace ZorvSnapUsage {
namespace {

constexpr std::chrono::seconds kSpanOfRate{10};
constexpr std::chrono::seconds kLeastSpanOfRate{1};
constexpr long kLongestTimeLeft = 99L * 24 * 3600;  // what is longer is a guess
constexpr size_t kWidestBar = 40;
constexpr size_t kNarrowestBar = 8;
constexpr size_t kShortestName = 12;
constexpr char kGap[] = "  ";
constexpr char kCut[] = "...";

std::string Size(unsigned long long bytes) { return BytesText(bytes, Units::kIec); }

// Nothing where it cannot be told.
std::optional<long> SecondsLeft(const ProgressView& view) {
  if (!view.totalBytes || !view.bytesPerSecond || *view.totalBytes <= view.readBytes)
    return std::nullopt;
  const double seconds =
      static_cast<double>(*view.totalBytes - view.readBytes) / *view.bytesPerSecond;
  if (seconds > kLongestTimeLeft) return std::nullopt;
  return static_cast<long>(seconds) + 1;
}

// A name that is too long keeps its beginning.
std::string Shortened(const std::string& name, size_t columns) {
  if (ColumnsAtMost(name) <= columns) return name;
  return CutToColumns(name, columns - std::min(columns, sizeof kCut - 1)) + kCut;
}

// The share's name at the end of the line, beside a bar if there is room for both; empty when there
// is not even room for a part of it.
std::string NameWithin(const std::string& name, size_t columns) {
  constexpr size_t kBeside = kNarrowestBar + 1;
  const size_t least = std::min(ColumnsAtMost(name), kShortestName) + sizeof kGap - 1;
  if (columns < least) return "";
  const size_t room = columns >= least + kBeside ? columns - kBeside : columns;
  return kGap + Shortened(name, room - (sizeof kGap - 1));
}

// The bar with a blank before it; empty when there is no room for one that says anything.
std::string BarWithin(int percent, size_t columns) {
  if (columns < kNarrowestBar + 1) return "";
  const size_t inside = std::min(columns - 1, kWidestBar) - 2;
  const size_t done = inside * static_cast<size_t>(percent) / 100;
  return " [" + std::string(done, '#') + std::string(inside - done, '.') + "]";
}

std::string RateText(double bytesPerSecond) {
  return Size(static_cast<unsigned long long>(bytesPerSecond)) + "/s";
}

// What stands behind the bar, the most important first: the others are left out where there is no
// room for them.
std::vector<std::string> Details(const ProgressView& view) {
  std::vector<std::string> details = {Size(view.readBytes)};
  if (const std::optional<long> left = SecondsLeft(view))
    details.insert(details.begin(), ElapsedText(*left) + " left");
  if (view.bytesPerSecond) details.push_back(RateText(*view.bytesPerSecond));
  return details;
}

}  // namespace

void Rate::Add(Time time, unsigned long long bytes) {
  // What went back is another calculation, or a count that was damaged.
  if (!seen_.empty() && bytes < seen_.back().second) seen_.clear();
  seen_.emplace_back(time, bytes);
  while (seen_.size() > 2 && time - seen_[1].first >= kSpanOfRate) seen_.pop_front();
}

std::optional<double> Rate::BytesPerSecond() const {
  if (seen_.empty()) return std::nullopt;
  const auto span = seen_.back().first - seen_.front().first;
  const unsigned long long bytes = seen_.back().second - seen_.front().second;
  if (span < kLeastSpanOfRate || bytes == 0) return std::nullopt;
  return static_cast<double>(bytes) / std::chrono::duration<double>(span).count();
}

std::optional<int> PercentOf(const ProgressView& view) {
  if (!view.totalBytes || *view.totalBytes == 0) return std::nullopt;
  const double percent =
      100.0 * static_cast<double>(view.readBytes) / static_cast<double>(*view.totalBytes);
  return static_cast<int>(std::min(percent, 99.0));
}

std::string BarLine(const ProgressView& view, size_t columns) {
  const std::optional<int> percent = PercentOf(view);
  if (!percent) return CutToColumns(LogLine(view), columns);
  const std::string begin = fmt::format("{:2} %", *percent);
  size_t left = columns - std::min(columns, begin.size());
  std::string details;
  for (const std::string& detail : Details(view)) {
    const std::string part = kGap + detail;
    if (part.size() > left) break;
    details += part;
    left -= part.size();
  }
  const std::string name = NameWithin(Escaped(view.share), left);
  const std::string bar = BarWithin(*percent, left - ColumnsAtMost(name));
  return CutToColumns(begin + bar + details + name, columns);
}

std::string LogLine(const ProgressView& view) {
  std::string line = view.state + ":";
  if (const std::optional<int> percent = PercentOf(view)) line += fmt::format(" {} %,", *percent);
  line += fmt::format(" read {}, exclusive so far {}, {}", Size(view.readBytes),
                      Size(view.exclusiveBytes), ElapsedText(view.elapsedSeconds));
  if (view.bytesPerSecond) line += ", " + RateText(*view.bytesPerSecond);
  if (const std::optional<long> left = SecondsLeft(view))
    line += ", " + ElapsedText(*left) + " left";
  return line + kGap + Escaped(view.share);
}

}  // namespace ZorvSnapUsage
