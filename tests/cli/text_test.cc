// Names and numbers as people read them.
#include "cli/text.h"

#include <gtest/gtest.h>

using namespace ZorvSnapUsage;

namespace {

struct TextCase {
  const char* name;
  std::string in;
  std::string out;
};

using namespace std::string_literals;

TEST(Escaped, KeepsALineALine) {
  const TextCase cases[] = {
      {"plain", "GMT+08-2024.03.05-17.04.09", "GMT+08-2024.03.05-17.04.09"},
      {"blank and UTF-8", "Fotos für 写真 📷", "Fotos für 写真 📷"},
      {"newline", "a\nb", "a\\nb"},
      {"tab", "a\tb", "a\\tb"},
      {"escape sequence", "\x1b[31m", "\\x1B[31m"},
      {"NUL", "a\0b"s, "a\\x00b"},
      {"delete", "\x7f", "\\x7F"},
      {"control above ASCII", "\xC2\x85", "\\xC2\\x85"},
      {"backslash", "a\\n", "a\\\\n"},
      {"not UTF-8", "\xFF\xFE", "\\xFF\\xFE"},
      {"cut short", "a\xE2\x82", "a\\xE2\\x82"},
      {"too long a form", "\xC0\xAF", "\\xC0\\xAF"},
      {"too long a form of three bytes", "\xE0\x80\xAF", "\\xE0\\x80\\xAF"},
      {"surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
      {"above the last code point", "\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
      {"line separator", "\xE2\x80\xA8", "\\xE2\\x80\\xA8"},
      {"turned around", "\xE2\x80\xAE", "\\xE2\\x80\\xAE"},
  };
  for (const TextCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.out, Escaped(c.in));
  }
}

TEST(Quoted, StandsBetweenQuotes) { EXPECT_EQ("'a\\nb'", Quoted("a\nb")); }

TEST(ShellWord, CanBeCopied) {
  const TextCase cases[] = {
      {"plain", "photos_2024-03.x", "photos_2024-03.x"},
      {"empty", "", "''"},
      {"blank", "my photos", "'my photos'"},
      {"variable", "$HOME", "'$HOME'"},
      {"quote", "it's", "$'it\\'s'"},
      {"newline", "a\nb", "$'a\\nb'"},
  };
  for (const TextCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.out, ShellWord(c.in));
  }
}

TEST(ValidUtf8, ReplacesWhatIsNot) {
  EXPECT_EQ("für 📷\n", ValidUtf8("für 📷\n"));
  EXPECT_EQ("a\xEF\xBF\xBD\xEF\xBF\xBDz", ValidUtf8("a\xFF\xC0z"));
}

TEST(ColumnsAtMost, CountsWideScriptsTwice) {
  EXPECT_EQ(3u, ColumnsAtMost("für"));
  EXPECT_EQ(4u, ColumnsAtMost("写真"));
}

TEST(CutToColumns, NeverCutsACharacter) {
  EXPECT_EQ("fü", CutToColumns("für", 2));
  EXPECT_EQ("写", CutToColumns("写真", 3));
  EXPECT_EQ("写真", CutToColumns("写真", 4));
  EXPECT_EQ("", CutToColumns("写真", 0));
}

TEST(ElapsedText, MinutesAndHours) {
  EXPECT_EQ("0:07", ElapsedText(7));
  EXPECT_EQ("12:34", ElapsedText(754));
  EXPECT_EQ("1:02:03", ElapsedText(3723));
}

TEST(SpanText, TwoUnitsAtMost) {
  const struct {
    long seconds;
    const char* text;
  } cases[] = {{0, "0 s"},         {59, "59 s"},          {60, "1 min"},
               {3599, "59 min"},   {3600, "1 h 0 min"},   {86399, "23 h 59 min"},
               {86400, "1 d 0 h"}, {8640000, "100 d 0 h"}};
  for (const auto& c : cases) EXPECT_EQ(c.text, SpanText(c.seconds));
}

}  // namespace
