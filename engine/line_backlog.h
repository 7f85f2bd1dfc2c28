// line_backlog.h: lines for a stream that is not to be waited for, such as standard error.
#ifndef ENGINE_LINE_BACKLOG_H_
#define ENGINE_LINE_BACKLOG_H_

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>

namespace ZorvEngine {

// Writes lines in their order as far as there is room, and keeps the others until there is.  A
// stream whose reader has gone, or that cannot be written, takes everything and keeps nothing.
class LineBacklog {
 public:
  // Bytes of lines that are kept at most; a line more than that may be.
  static constexpr size_t kMostBytes = 1u << 20;

  // `fd` is the caller's and outlives the object.
  explicit LineBacklog(int fd) : fd_(fd) {}

  // Takes a line, and writes what there is room for.
  void Add(const std::string& line);

  // As Add, unless too much is kept: then the line is left out.  Once there is room again, a line
  // says how many were.
  void AddUnlessFull(const std::string& line);

  // Whether lines wait for room.
  bool Waits() const { return !pieces_.empty() || leftOut_ > 0; }

  // Writes what there is room for; never waits.
  void WriteWhatFits();

  // Writes everything, and gives up when there is no room for as long as `patience`.
  void Finish(std::chrono::milliseconds patience);

  // Forgets what has not been written.
  void Drop();

 private:
  bool HasRoomWithin(int milliseconds) const;
  bool WriteOne();
  void Keep(const std::string& line);

  const int fd_;
  std::deque<std::string> pieces_;  // of PIPE_BUF bytes at most: what fits a pipe at once
  size_t keptBytes_ = 0;
  size_t leftOut_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_LINE_BACKLOG_H_
