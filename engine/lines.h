// lines.h: the lines of standard output, and how they are written.
#ifndef ENGINE_LINES_H_
#define ENGINE_LINES_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace ZorvEngine {

// The documented lines, each with its end.
std::string GenerationLine(uint64_t generation);
std::string TotalLine(uint64_t bytes);
std::string ProcessedLine(uint64_t bytes);
std::string ExclusiveLine(uint64_t bytes);
std::string SubvolumeLine(uint64_t id, uint64_t bytes);
std::string WaitingLine(size_t runs);

// The last line of a failed run.  Its reader may take the first number it finds for a size, so
// there is none: digits become '#', a run of them one.  Control characters become '?'; at most 200
// bytes.
std::string UnavailableLine(const std::string& reason);

// The line of a failure, or of a note, on standard error; control characters become '?'.
std::string ErrorLine(const std::string& reason);
std::string NoteLine(const std::string& note);

// A line of --check: what kind of finding, and the finding; control characters become '?'.  At most
// PIPE_BUF bytes.
std::string FindingLine(const std::string& kind, const std::string& what);

// Writes a line (at most PIPE_BUF bytes) to `fd` with one write, so that a reader of a pipe gets it
// whole or not at all.  A line that a full disk has cut is taken back.  False: not written, and
// errno says why; EPIPE: the reader has gone.
bool WriteLine(int fd, const std::string& line);

// Writes a document of any length in pieces.  What a failure leaves of it at the end of a file is
// taken back.
class DocumentWriter {
 public:
  // `fd` is the caller's and outlives the object.
  explicit DocumentWriter(int fd) : fd_(fd) {}

  // Writes a piece; false: not written, and errno says why.
  bool Write(const std::string& piece);

 private:
  void TakeBack() const;

  const int fd_;
  off_t written_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_LINES_H_
