#include "cli/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

namespace ZorvSnapUsage {
namespace {

// One character of a text: its code point, or -1 for a byte that is not UTF-8; and its length.
struct Character {
  int codePoint;
  size_t length;
};

bool IsContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

// The length that the first byte of a character announces; 0: no character begins so.
size_t AnnouncedLength(unsigned char first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first < 0xE0) return 2;
  if (first >= 0xE0 && first < 0xF0) return 3;
  if (first >= 0xF0 && first < 0xF5) return 4;
  return 0;
}

// Decodes the character at the beginning of `text`, which is not empty (RFC 3629: the shortest
// form only, no surrogates, nothing above U+10FFFF).
Character FirstCharacter(std::string_view text) {
  constexpr Character kInvalid = {-1, 1};
  const unsigned char first = static_cast<unsigned char>(text[0]);
  const size_t length = AnnouncedLength(first);
  if (length == 0 || length > text.size()) return kInvalid;
  if (length == 1) return {first, 1};
  int codePoint = first & (0x7F >> length);
  for (size_t i = 1; i < length; ++i) {
    if (!IsContinuation(text[i])) return kInvalid;
    codePoint = codePoint << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
  }
  constexpr int kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (codePoint < kSmallest[length] || codePoint > 0x10FFFF) return kInvalid;
  if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return kInvalid;
  return {codePoint, length};
}

// Whether a character would break a line, move the cursor or turn the text around.
bool DisturbsTheLine(int codePoint) {
  const auto within = [codePoint](int from, int to) {
    return codePoint >= from && codePoint <= to;
  };
  return codePoint < 0x20 || within(0x7F, 0x9F) || within(0x200E, 0x200F) ||
         within(0x2028, 0x202E) || within(0x2066, 0x2069);
}

std::string EscapedBytes(std::string_view bytes) {
  if (bytes == "\n") return "\\n";
  if (bytes == "\t") return "\\t";
  if (bytes == "\\") return "\\\\";
  std::string text;
  for (const char byte : bytes)
    text += fmt::format("\\x{:02X}", static_cast<unsigned>(static_cast<unsigned char>(byte)));
  return text;
}

bool IsPlainInShell(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') ||
         std::string_view("._-+/:@%,").find(byte) != std::string::npos;
}

// Columns of one character: wide scripts begin at U+1100, everything from there counts double.
size_t ColumnsOf(int codePoint) { return codePoint >= 0x1100 ? 2 : 1; }

}  // namespace

std::string Escaped(const std::string& name) {
  std::string text;
  for (std::string_view rest = name; !rest.empty();) {
    const Character c = FirstCharacter(rest);
    const std::string_view bytes = rest.substr(0, c.length);
    if (DisturbsTheLine(c.codePoint) || c.codePoint == '\\')
      text += EscapedBytes(bytes);
    else
      text += bytes;
    rest.remove_prefix(c.length);
  }
  return text;
}

std::string Quoted(const std::string& name) { return "'" + Escaped(name) + "'"; }

std::string ShellWord(const std::string& name) {
  if (!name.empty() && std::all_of(name.begin(), name.end(), IsPlainInShell)) return name;
  const std::string escaped = Escaped(name);
  std::string word;
  for (const char byte : escaped) word += byte == '\'' ? std::string("\\'") : std::string(1, byte);
  // $'...' alone understands the escapes; without any of them '...' is what everybody knows.
  return escaped == name && word == name ? "'" + name + "'" : "$'" + word + "'";
}

std::string ValidUtf8(const std::string& text) {
  std::string valid;
  for (std::string_view rest = text; !rest.empty();) {
    const Character c = FirstCharacter(rest);
    valid += c.codePoint < 0 ? std::string_view("\xEF\xBF\xBD") : rest.substr(0, c.length);
    rest.remove_prefix(c.length);
  }
  return valid;
}

size_t ColumnsAtMost(const std::string& text) {
  size_t columns = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const Character c = FirstCharacter(rest);
    columns += ColumnsOf(c.codePoint);
    rest.remove_prefix(c.length);
  }
  return columns;
}

std::string CutToColumns(const std::string& text, size_t columns) {
  size_t used = 0;
  std::string_view rest = text;
  while (!rest.empty()) {
    const Character c = FirstCharacter(rest);
    used += ColumnsOf(c.codePoint);
    if (used > columns) break;
    rest.remove_prefix(c.length);
  }
  return text.substr(0, text.size() - rest.size());
}

std::string ElapsedText(long seconds) {
  const long hours = seconds / 3600;
  const long minutes = seconds / 60 % 60;
  if (hours > 0) return fmt::format("{}:{:02}:{:02}", hours, minutes, seconds % 60);
  return fmt::format("{}:{:02}", minutes, seconds % 60);
}

std::string SpanText(long seconds) {
  const long minutes = seconds / 60, hours = minutes / 60, days = hours / 24;
  if (days > 0) return fmt::format("{} d {} h", days, hours % 24);
  if (hours > 0) return fmt::format("{} h {} min", hours, minutes % 60);
  return minutes > 0 ? fmt::format("{} min", minutes) : fmt::format("{} s", seconds);
}

}  // namespace ZorvSnapUsage
