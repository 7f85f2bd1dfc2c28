#include "engine/lines.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

namespace ZorvEngine {
namespace {

constexpr size_t kUnavailableBytes = 200;

std::string BytesLine(const std::string& what, uint64_t bytes) {
  return what + " " + std::to_string(bytes) + " bytes\n";
}

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

std::string WithoutControls(std::string text) {
  std::replace_if(text.begin(), text.end(), IsControl, '?');
  return text;
}

std::string WithoutDigits(const std::string& text) {
  std::string out;
  bool afterDigit = false;
  for (const char c : text) {
    const bool digit = c >= '0' && c <= '9';
    if (!digit) out += c;
    if (digit && !afterDigit) out += '#';
    afterDigit = digit;
  }
  return out;
}

// Cuts to at most `size` bytes, not inside a UTF-8 character.
void CutTo(size_t size, std::string* text) {
  if (text->size() <= size) return;
  while (size > 0 && (static_cast<unsigned char>((*text)[size]) & 0xC0) == 0x80) --size;
  text->resize(size);
}

// One write that is not interrupted, waiting for room where there is none.
bool WriteSome(int fd, const char* bytes, size_t size, ssize_t* written) {
  while ((*written = write(fd, bytes, size)) < 0) {
    if (errno == EAGAIN) {
      pollfd room = {fd, POLLOUT, 0};
      (void)poll(&room, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

// Makes a file end at `end`, and goes there.
void CutFile(int fd, off_t end) {
  if (ftruncate(fd, end) == 0) (void)lseek(fd, end, SEEK_SET);
}

}  // namespace

std::string GenerationLine(uint64_t generation) {
  return "generation " + std::to_string(generation) + "\n";
}
std::string TotalLine(uint64_t bytes) { return BytesLine("total", bytes); }
std::string ProcessedLine(uint64_t bytes) { return BytesLine("processed", bytes); }
std::string ExclusiveLine(uint64_t bytes) { return BytesLine("exclusive", bytes); }
std::string SubvolumeLine(uint64_t id, uint64_t bytes) {
  return BytesLine("subvol(" + std::to_string(id) + ")", bytes);
}
std::string WaitingLine(size_t runs) {
  return "waiting for other runs on this file system: " + std::to_string(runs) + " ahead\n";
}

std::string UnavailableLine(const std::string& reason) {
  std::string line = "exclusive sizes unavailable: " + WithoutDigits(WithoutControls(reason));
  CutTo(kUnavailableBytes - 1, &line);
  return line + "\n";
}

std::string ErrorLine(const std::string& reason) {
  return "ERROR: " + WithoutControls(reason) + "\n";
}
std::string NoteLine(const std::string& note) { return "NOTE: " + WithoutControls(note) + "\n"; }

std::string FindingLine(const std::string& kind, const std::string& what) {
  std::string line = kind + ": " + WithoutControls(what);
  CutTo(PIPE_BUF - 1, &line);
  return line + "\n";
}

bool WriteLine(int fd, const std::string& line) {
  ssize_t written = 0;
  if (!WriteSome(fd, line.data(), line.size(), &written)) return false;
  if (written == static_cast<ssize_t>(line.size())) return true;
  const off_t end = lseek(fd, 0, SEEK_CUR);  // fails for what is no file, where no cut happens
  if (end >= written) CutFile(fd, end - written);
  errno = ENOSPC;
  return false;
}

bool DocumentWriter::Write(const std::string& piece) {
  for (size_t at = 0; at < piece.size();) {
    ssize_t written = 0;
    if (!WriteSome(fd_, piece.data() + at, piece.size() - at, &written)) {
      const int failed = errno;
      TakeBack();
      errno = failed;
      return false;
    }
    at += static_cast<size_t>(written);
    written_ += written;
  }
  return true;
}

// Where the document began is known only behind it: a file that is open for appending is written at
// its end, wherever its offset was before.  What somebody else has added since stays.
void DocumentWriter::TakeBack() const {
  const off_t end = lseek(fd_, 0, SEEK_CUR);
  struct stat file;
  if (written_ > 0 && end >= written_ && fstat(fd_, &file) == 0 && file.st_size == end)
    CutFile(fd_, end - written_);
}

}  // namespace ZorvEngine
