#include "cli/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <utility>

#include "cli/share.h"
#include "cli/standard_streams.h"
#include "cli/terminal.h"

namespace ZorvSnapUsage {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kLineInterval{5};

// Back to the beginning of the line; the rest of it goes, or the rest of the screen.
constexpr char kEraseLine[] = "\r\033[K";
constexpr char kEraseBelow[] = "\r\033[J";

}  // namespace

Progress::Progress(std::string share, bool quiet)
    : share_(std::move(share)), quiet_(quiet), redraw_(UnderstandsControls(STDERR_FILENO)) {
  if (quiet_) return;
  if (const std::optional<ShareOrigin> place = FindPlace(share_))
    question_.emplace("--estimate", place->path);
}

Progress::~Progress() { Clear(); }

void Progress::Show(const Calculation& calculation) {
  if (quiet_) return;
  const ProgressView view = ViewOf(calculation);
  if (redraw_) {
    Redraw(view);
  } else if (calculation.pid && steady_clock::now() >= nextLine_) {
    ToStandardError(LogLine(view) + "\n");
    nextLine_ = steady_clock::now() + kLineInterval;
  }
}

ProgressView Progress::ViewOf(const Calculation& calculation) {
  if (question_) {
    if (const std::optional<std::string> answer = question_->Answer()) {
      totalBytes_ = EstimateIn(*answer);
      question_.reset();
    }
  }
  const steady_clock::time_point now = steady_clock::now();
  ProgressView view;
  view.share = share_;
  view.state = calculation.stateWord;
  view.readBytes = calculation.processedBytes.value_or(0);
  view.exclusiveBytes = calculation.exclusiveBytes.value_or(0);
  view.totalBytes = totalBytes_;
  rate_.Add(now, view.readBytes);
  view.bytesPerSecond = rate_.BytesPerSecond();
  view.elapsedSeconds = std::chrono::duration_cast<std::chrono::seconds>(now - begin_).count();
  return view;
}

// A line as wide as the terminal would wrap. The cursor goes back to its beginning, so that what
// the calculation itself says there does not stand behind it.
void Progress::Redraw(const ProgressView& view) {
  const size_t columns = ColumnsOfTerminal(STDERR_FILENO);
  // A terminal that became narrower may have put the end of the line on lines of its own.
  const char* const erase = columns < drawnColumns_ ? kEraseBelow : kEraseLine;
  ToStandardError(fmt::format("{}{}\r", erase, BarLine(view, columns - 1)));
  drawnColumns_ = columns;
}

void Progress::Say(const std::string& text) {
  Clear();
  ZorvSnapUsage::Say(text);
}

void Progress::Clear() {
  if (drawnColumns_ == 0) return;
  ToStandardError(ColumnsOfTerminal(STDERR_FILENO) < drawnColumns_ ? kEraseBelow : kEraseLine);
  drawnColumns_ = 0;
}

}  // namespace ZorvSnapUsage
