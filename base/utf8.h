// Tells UTF-8 from other bytes.
#ifndef BASE_UTF8_H_
#define BASE_UTF8_H_

#include <stddef.h>

#include <string_view>

namespace ZorvBtrfsUsage {

// How many bytes at `at` are one encoded character; 0: none is (RFC 3629, section 4: no overlong
// forms, no surrogates, nothing above U+10FFFF).
inline size_t Utf8CharLength(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) -> unsigned {
    return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0u;
  };
  const auto in = [&](size_t i, unsigned low, unsigned high) {
    return byte(i) >= low && byte(i) <= high;
  };
  const auto tail = [&](size_t i) { return in(i, 0x80, 0xBF); };
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead < 0xC2) return 0;
  if (lead < 0xE0) return tail(1) ? 2 : 0;
  if (lead < 0xF0) {
    const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned high = lead == 0xED ? 0x9F : 0xBF;
    return in(1, low, high) && tail(2) ? 3 : 0;
  }
  if (lead > 0xF4) return 0;
  const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
  const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;
  return in(1, low, high) && tail(2) && tail(3) ? 4 : 0;
}

// Whether the whole of `text` is UTF-8. Empty text is.
inline bool IsUtf8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = Utf8CharLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

}  // namespace ZorvBtrfsUsage

#endif  // BASE_UTF8_H_
