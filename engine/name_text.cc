#include "engine/name_text.h"

namespace ZorvEngine {

std::string NameText(const std::string& name) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7F && c != '\\') {
      text += c;
      continue;
    }
    text += "\\x";
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace ZorvEngine
