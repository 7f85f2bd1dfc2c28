// What the tool makes of names and times that somebody else has written.
#include "base/utf8.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "tests/fuzz/target.h"

using namespace ZorvTest;
using namespace ZorvSnapUsage;
using ZorvBtrfsUsage::IsUtf8;

namespace {

bool IsOneLine(const std::string& text) {
  for (const char c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
  return IsUtf8(text);
}

int HexDigit(char c) { return c <= '9' ? c - '0' : c - 'A' + 10; }

// What a shell makes of a word in '...' or $'...', or of a plain one.
std::string AsShellReads(const std::string& word) {
  const bool escapes = word.substr(0, 2) == "$'";
  if (!escapes && word[0] != '\'') return word;
  const std::string inner = word.substr(escapes ? 2 : 1, word.size() - (escapes ? 3 : 2));
  FUZZ_LAW(word.back() == '\'' && (escapes || inner.find('\'') == std::string::npos));
  if (!escapes) return inner;
  std::string text;
  for (size_t i = 0; i < inner.size(); ++i) {
    FUZZ_LAW(inner[i] != '\'');
    if (inner[i] != '\\') {
      text += inner[i];
      continue;
    }
    const char kind = inner.at(++i);
    if (kind == 'x') {
      text += static_cast<char>(HexDigit(inner.at(i + 1)) * 16 + HexDigit(inner.at(i + 2)));
      i += 2;
    } else {
      text += kind == 'n' ? '\n' : kind == 't' ? '\t' : kind;
    }
  }
  return text;
}

}  // namespace

FUZZ_TARGET(shown_text) {
  const std::string name(input);
  FUZZ_LAW(IsOneLine(Escaped(name)) && IsOneLine(Quoted(name)));
  FUZZ_LAW(IsOneLine(ShellWord(name)) && AsShellReads(ShellWord(name)) == name);
  const std::string valid = ValidUtf8(name);
  FUZZ_LAW(IsUtf8(valid) && ValidUtf8(valid) == valid);
  const std::string shown = Escaped(name);
  for (const size_t columns : {0, 1, 2, 7, 40}) {
    const std::string cut = CutToColumns(shown, columns);
    FUZZ_LAW(ColumnsAtMost(cut) <= columns && shown.compare(0, cut.size(), cut) == 0);
    FUZZ_LAW(IsUtf8(cut));
  }

  setenv("TZ", "UTC0", 1);
  tzset();
  for (const TimeBound bound : {TimeBound::kFirstSecond, TimeBound::kLastSecond}) {
    const std::optional<time_t> time = ParseTime(name, bound);
    if (time) FUZZ_LAW(ParseTime(TimeForPeople(*time), bound) == time);
  }
}
