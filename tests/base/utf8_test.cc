// What counts as UTF-8: the boundaries of RFC 3629, section 4.
#include "base/utf8.h"

#include <gtest/gtest.h>

#include <string>

using namespace std::string_literals;
using ZorvBtrfsUsage::IsUtf8;
using ZorvBtrfsUsage::Utf8CharLength;

TEST(IsUtf8, Boundaries) {
  const struct {
    const char* name;
    std::string text;
    bool utf8;
  } kCases[] = {
      {"empty", "", true},
      {"ASCII", "photos", true},
      {"NUL", "\0"s, true},
      {"first of two bytes", "\xC2\x80", true},
      {"last of two bytes", "\xDF\xBF", true},
      {"first of three bytes", "\xE0\xA0\x80", true},
      {"last before the surrogates", "\xED\x9F\xBF", true},
      {"first after the surrogates", "\xEE\x80\x80", true},
      {"last of three bytes", "\xEF\xBF\xBF", true},
      {"first of four bytes", "\xF0\x90\x80\x80", true},
      {"last of all", "\xF4\x8F\xBF\xBF", true},
      {"several", "a\xC3\xBC\xE2\x82\xAC\xF0\x9F\x93\xB7z", true},
      {"lone continuation", "\x80", false},
      {"last continuation", "\xBF", false},
      {"overlong NUL", "\xC0\x80", false},
      {"overlong in two bytes", "\xC1\xBF", false},
      {"overlong in three bytes", "\xE0\x9F\xBF", false},
      {"overlong in four bytes", "\xF0\x8F\xBF\xBF", false},
      {"first surrogate", "\xED\xA0\x80", false},
      {"last surrogate", "\xED\xBF\xBF", false},
      {"above U+10FFFF", "\xF4\x90\x80\x80", false},
      {"lead of five bytes", "\xF8\x88\x80\x80\x80", false},
      {"byte 0xF5", "\xF5\x80\x80\x80", false},
      {"byte 0xFF", "\xFF", false},
      {"cut after one of two", "a\xC3", false},
      {"cut after two of three", "a\xE2\x82", false},
      {"cut after three of four", "a\xF0\x9F\x93", false},
      {"two bytes, the second ASCII", "\xC3z", false},
      {"three bytes, the third ASCII", "\xE2\x82z", false},
      {"four bytes, the third ASCII", "\xF0\x9Fz\x93", false},
      {"four bytes, the fourth ASCII", "\xF0\x9F\x93z", false},
      {"Latin-1 among ASCII", "f\xFCr", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.utf8, IsUtf8(c.text));
  }
}

TEST(Utf8CharLength, CountsTheBytesOfOneCharacter) {
  const std::string text = "a\xC3\xBC\xE2\x82\xAC\xF0\x9F\x93\xB7\xFF";
  EXPECT_EQ(1u, Utf8CharLength(text, 0));
  EXPECT_EQ(2u, Utf8CharLength(text, 1));
  EXPECT_EQ(3u, Utf8CharLength(text, 3));
  EXPECT_EQ(4u, Utf8CharLength(text, 6));
  EXPECT_EQ(0u, Utf8CharLength(text, 10));
}
