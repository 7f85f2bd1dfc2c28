#include "cli/name_bytes.h"

#include <charconv>

#include "cli/json_reader.h"

namespace ZorvSnapUsage {

std::string NameBytes(const std::string& text) {
  std::string bytes;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\') {
      bytes += text[at];
      continue;
    }
    unsigned char byte = 0;
    const char* const digits = text.data() + at + 2;
    const bool whole = text.size() - at >= 4 && text[at + 1] == 'x';
    if (!whole || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2)
      throw JsonError("a name that is not understood");
    bytes += static_cast<char>(byte);
    at += 3;
  }
  return bytes;
}

}  // namespace ZorvSnapUsage
