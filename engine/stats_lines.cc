#include "engine/stats_lines.h"

namespace ZorvEngine {
namespace {

std::string Line(const std::string& what, const std::string& value) {
  return "STATS: " + what + " " + value + "\n";
}

std::string Line(const std::string& what, uint64_t value) {
  return Line(what, std::to_string(value));
}

const char* WayName(uint32_t way) {
  if (way == ReadCounters::kRing) return "io_uring";
  if (way == ReadCounters::kThreads) return "threads";
  return "one by one";
}

}  // namespace

std::vector<std::string> StatsLines(const SizeProgress& progress) {
  const RunStats& stats = progress.stats;
  const ReadCounters& reads = progress.meter.counters;
  const std::string why = stats.why;
  const std::string noTurn = stats.noTurn;
  std::vector<std::string> lines = {
      Line("method", why.empty() ? stats.method : stats.method + (" (" + why + ")")),
      Line("turn", noTurn.empty() ? "taken" : "none (" + noTurn + ")"),
      Line("blocks", reads.blocksVerified),
      Line("bytes", reads.bytesRead),
      Line("requests", reads.requests),
      Line("mirrors", reads.mirrorsUsed),
      Line("reading", WayName(reads.way)),
      Line("passes", stats.passes),
      Line("repairs", stats.repairs),
      Line("sets", stats.sets),
      Line("peak-memory", stats.peakBytes),
  };
  for (const RunStats::Phase& phase : stats.phases) {
    if (phase.name == nullptr) break;
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(phase.time);
    lines.push_back(Line(std::string("phase ") + phase.name, std::to_string(time.count()) + " us"));
  }
  return lines;
}

}  // namespace ZorvEngine
