// Trimming.
#include <gtest/gtest.h>
#include <locale.h>

#include <string>
#include <vector>

#include "tests/platform/platform_error.h"

TEST(PLATCStrTrimSpace, RemovesWhiteSpaceAtBothEnds) {
  const struct {
    const char* name;
    const char* in;
    const char* out;
  } kCases[] = {
      {"nothing to do", "text", "text"},
      {"line end", "0b5c\n", "0b5c"},
      {"both ends, every kind", " \t\n\v\f\rtext\r\f\v\n\t ", "text"},
      {"inside is kept", " a \t b ", "a \t b"},
      {"blanks alone", " \n\t ", ""},
      {"empty", "", ""},
      {"one character", "x", "x"},
      {"bytes above 127 are no blanks", "\xa0\x85 \xe3\x80\x80", "\xa0\x85 \xe3\x80\x80"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string text = c.in;
    EXPECT_EQ(0, PLATCStrTrimSpace(text.data()));
    EXPECT_STREQ(c.out, text.c_str());
  }
}
