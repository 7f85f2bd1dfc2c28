#include "engine/lines.h"

#include <errno.h>
#include <poll.h>
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

std::string UnavailableLine(const std::string& reason) {
  std::string line = "exclusive sizes unavailable: " + WithoutDigits(WithoutControls(reason));
  CutTo(kUnavailableBytes - 1, &line);
  return line + "\n";
}

std::string ErrorLine(const std::string& reason) {
  return "ERROR: " + WithoutControls(reason) + "\n";
}
std::string NoteLine(const std::string& note) { return "NOTE: " + WithoutControls(note) + "\n"; }

bool WriteLine(int fd, const std::string& line) {
  for (;;) {
    const ssize_t written = write(fd, line.data(), line.size());
    if (written == static_cast<ssize_t>(line.size())) return true;
    if (written >= 0) {
      const off_t end = lseek(fd, 0, SEEK_CUR);  // fails for what is no file, where no cut happens
      if (end >= written && ftruncate(fd, end - written) == 0)
        (void)lseek(fd, end - written, SEEK_SET);
      errno = ENOSPC;
      return false;
    }
    if (errno == EAGAIN) {
      pollfd room = {fd, POLLOUT, 0};
      (void)poll(&room, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
}

}  // namespace ZorvEngine
