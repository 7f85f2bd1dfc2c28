#include "engine/line_backlog.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include "engine/lines.h"

namespace ZorvEngine {

void LineBacklog::Add(const std::string& line) {
  Keep(line);
  WriteWhatFits();
}

void LineBacklog::AddUnlessFull(const std::string& line) {
  if (keptBytes_ >= kMostBytes) WriteWhatFits();
  if (keptBytes_ >= kMostBytes || leftOut_ > 0)
    ++leftOut_;
  else
    Keep(line);
  WriteWhatFits();
}

void LineBacklog::WriteWhatFits() {
  while (Waits() && HasRoomWithin(0))
    if (!WriteOne()) return;
}

void LineBacklog::Finish(std::chrono::milliseconds patience) {
  while (Waits() && HasRoomWithin(static_cast<int>(patience.count())))
    if (!WriteOne()) return;
}

// An error or a hang-up counts as room: the write then tells.
bool LineBacklog::HasRoomWithin(int milliseconds) const {
  pollfd room = {fd_, POLLOUT, 0};
  int ready = 0;
  while ((ready = poll(&room, 1, milliseconds)) < 0 && errno == EINTR) continue;
  return ready > 0;
}

// Writes the first piece, or what the stream takes of it.  False: there is no room after all.
bool LineBacklog::WriteOne() {
  if (pieces_.empty()) {
    Keep(NoteLine(std::to_string(leftOut_) +
                  " more notes are left out: standard error was not read in time"));
    leftOut_ = 0;
  }
  std::string& piece = pieces_.front();
  const ssize_t written = write(fd_, piece.data(), piece.size());
  if (written < 0 && errno == EINTR) return true;
  if (written < 0 && errno == EAGAIN) return false;
  if (written <= 0) {
    Drop();
    return true;
  }
  keptBytes_ -= static_cast<size_t>(written);
  if (static_cast<size_t>(written) == piece.size())
    pieces_.pop_front();
  else
    piece.erase(0, static_cast<size_t>(written));
  return true;
}

void LineBacklog::Keep(const std::string& line) {
  for (size_t at = 0; at < line.size(); at += PIPE_BUF)
    pieces_.push_back(line.substr(at, PIPE_BUF));
  keptBytes_ += line.size();
}

void LineBacklog::Drop() {
  pieces_.clear();
  keptBytes_ = 0;
  leftOut_ = 0;
}

}  // namespace ZorvEngine
