#include "cli/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <utility>

#include "cli/standard_streams.h"
#include "cli/terminal.h"
#include "cli/text.h"
#include "cli/units.h"

namespace ZorvSnapUsage {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kLineInterval{5};

}  // namespace

Progress::Progress(std::string share, bool quiet)
    : share_(std::move(share)), quiet_(quiet), redraw_(UnderstandsControls(STDERR_FILENO)) {}

Progress::~Progress() { Clear(); }

void Progress::Show(const Calculation& calculation) {
  if (quiet_) return;
  if (redraw_) {
    // A line as wide as the terminal would wrap. The cursor goes back to its beginning, so that
    // what the calculation itself says there does not stand behind it.
    const std::string line = CutToColumns(Line(calculation), ColumnsOfTerminal(STDERR_FILENO) - 1);
    ToStandardError(fmt::format("\r\033[K{}\r", line));
    drawn_ = true;
  } else if (calculation.pid && steady_clock::now() >= nextLine_) {
    ToStandardError(Line(calculation) + "\n");
    nextLine_ = steady_clock::now() + kLineInterval;
  }
}

void Progress::Say(const std::string& text) {
  Clear();
  ToStandardError(fmt::format("zorv-snapusage: {}\n", text));
}

void Progress::Clear() {
  if (!drawn_) return;
  ToStandardError("\r\033[K");
  drawn_ = false;
}

std::string Progress::Line(const Calculation& calculation) const {
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - begin_).count();
  return fmt::format("{}: read {}, exclusive so far {}, {}  {}", calculation.stateWord,
                     BytesText(calculation.processedBytes.value_or(0), Units::kIec),
                     BytesText(calculation.exclusiveBytes.value_or(0), Units::kIec),
                     ElapsedText(elapsed), Escaped(share_));
}

}  // namespace ZorvSnapUsage
