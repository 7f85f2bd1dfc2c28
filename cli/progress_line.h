// What a progress line says, and how it fits its terminal.
#ifndef CLI_PROGRESS_LINE_H_
#define CLI_PROGRESS_LINE_H_

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <utility>

namespace ZorvSnapUsage {

// How fast something grows: over the last seconds, so that a pause is soon seen.
class Rate {
 public:
  using Time = std::chrono::steady_clock::time_point;

  void Add(Time time, unsigned long long bytes);

  // Bytes a second; nothing before there is a second to judge by, or while nothing moves.
  std::optional<double> BytesPerSecond() const;

 private:
  std::deque<std::pair<Time, unsigned long long>> seen_;
};

struct ProgressView {
  std::string share;
  std::string state;
  unsigned long long readBytes = 0;
  unsigned long long exclusiveBytes = 0;         // found so far
  std::optional<unsigned long long> totalBytes;  // to be read, as estimated
  std::optional<double> bytesPerSecond;
  long elapsedSeconds = 0;
};

// 0 to 99: the end alone is the end, and estimates are only that. Nothing without an estimate.
std::optional<int> PercentOf(const ProgressView& view);

// The line for a terminal, at most `columns` wide: a bar with percent, bytes, rate, time left and
// the share; what there is no room for is left out, the percentage last.
std::string BarLine(const ProgressView& view, size_t columns);

// The line for a log, of any length.
std::string LogLine(const ProgressView& view);

}  // namespace ZorvSnapUsage

#endif  // CLI_PROGRESS_LINE_H_
