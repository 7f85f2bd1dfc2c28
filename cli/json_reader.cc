#include "cli/json_reader.h"

#include <fmt/format.h>

#include <limits>
#include <set>

namespace ZorvSnapUsage {
namespace {

constexpr unsigned kMostDepth = 32;

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

// What stands behind a backslash; 0: nothing that is understood.
char Unescaped(char character) {
  constexpr std::string_view kFrom = "\"\\/bfnrt";
  constexpr std::string_view kTo = "\"\\/\b\f\n\r\t";
  const size_t at = kFrom.find(character);
  return at == std::string_view::npos ? '\0' : kTo[at];
}

}  // namespace

void JsonReader::Wrong(const std::string& what) const {
  throw JsonError(fmt::format("{} at byte {}", what, all_ - rest_.size()));
}

char JsonReader::Peek() {
  while (!rest_.empty() && std::string_view(" \t\r\n").find(rest_.front()) != std::string::npos)
    rest_.remove_prefix(1);
  if (rest_.empty()) Wrong("the document ends too early");
  return rest_.front();
}

bool JsonReader::TakeIf(char character) {
  if (Peek() != character) return false;
  rest_.remove_prefix(1);
  return true;
}

void JsonReader::Take(char character) {
  if (!TakeIf(character)) Wrong(fmt::format("'{}' is missing", character));
}

bool JsonReader::TakeWord(std::string_view word) {
  (void)Peek();
  if (rest_.substr(0, word.size()) != word) return false;
  rest_.remove_prefix(word.size());
  return true;
}

void JsonReader::Enter() {
  if (++depth_ > kMostDepth) Wrong("too many levels");
}

void JsonReader::Object(const std::function<void(const std::string& name)>& member) {
  Take('{');
  Enter();
  std::set<std::string> names;
  if (!TakeIf('}')) {
    do {
      const std::string name = Text();
      if (!names.insert(name).second) Wrong("a second member " + name);
      Take(':');
      member(name);
    } while (TakeIf(','));
    Take('}');
  }
  --depth_;
}

void JsonReader::Members(const Readers& required, const Readers& optional) {
  std::set<std::string> missing;
  for (const auto& [name, read] : required) missing.insert(name);
  Object([&](const std::string& name) {
    missing.erase(name);
    for (const Readers* readers : {&required, &optional})
      if (const auto reader = readers->find(name); reader != readers->end())
        return reader->second();
    Skip();
  });
  if (!missing.empty()) Wrong(*missing.begin() + " is missing");
}

void JsonReader::Array(const std::function<void()>& element) {
  Take('[');
  Enter();
  if (!TakeIf(']')) {
    do element();
    while (TakeIf(','));
    Take(']');
  }
  --depth_;
}

unsigned long long JsonReader::Number() {
  constexpr unsigned long long kMost = std::numeric_limits<unsigned long long>::max();
  if (!IsDigit(Peek())) Wrong("no whole number");
  const bool leadingZero = rest_.front() == '0';
  unsigned long long number = 0;
  size_t digits = 0;
  for (; digits < rest_.size() && IsDigit(rest_[digits]); ++digits) {
    const auto units = static_cast<unsigned long long>(rest_[digits] - '0');
    if (number > (kMost - units) / 10) Wrong("a number above 64 bits");
    number = number * 10 + units;
  }
  if (leadingZero && digits > 1) Wrong("no whole number");
  rest_.remove_prefix(digits);
  if (!rest_.empty() && std::string_view(".eE").find(rest_.front()) != std::string_view::npos)
    Wrong("no whole number");
  return number;
}

std::string JsonReader::Text() {
  Take('"');
  std::string text;
  while (!rest_.empty() && rest_.front() != '"') {
    char character = rest_.front();
    if (static_cast<unsigned char>(character) < 0x20) Wrong("a control character in a text");
    rest_.remove_prefix(1);
    if (character == '\\') {
      character = rest_.empty() ? '\0' : Unescaped(rest_.front());
      if (character == '\0') Wrong("a text that is not understood");
      rest_.remove_prefix(1);
    }
    text += character;
  }
  if (rest_.empty()) Wrong("the document ends too early");
  rest_.remove_prefix(1);
  return text;
}

bool JsonReader::Bool() {
  if (TakeWord("true")) return true;
  if (TakeWord("false")) return false;
  Wrong("neither true nor false");
}

void JsonReader::SkipText() {
  Take('"');
  while (!rest_.empty() && rest_.front() != '"')
    rest_.remove_prefix(rest_.front() == '\\' && rest_.size() > 1 ? 2 : 1);
  if (rest_.empty()) Wrong("the document ends too early");
  rest_.remove_prefix(1);
}

void JsonReader::SkipDigits() {
  if (rest_.empty() || !IsDigit(rest_.front())) Wrong("no number");
  while (!rest_.empty() && IsDigit(rest_.front())) rest_.remove_prefix(1);
}

void JsonReader::SkipNumber() {
  const auto takeAny = [this](std::string_view characters) {
    if (rest_.empty() || characters.find(rest_.front()) == std::string_view::npos) return false;
    rest_.remove_prefix(1);
    return true;
  };
  (void)takeAny("-");
  SkipDigits();
  if (takeAny(".")) SkipDigits();
  if (!takeAny("eE")) return;
  (void)takeAny("+-");
  SkipDigits();
}

void JsonReader::Skip() {
  switch (Peek()) {
    case '{':
      return Object([this](const std::string&) { Skip(); });
    case '[':
      return Array([this] { Skip(); });
    case '"':
      return SkipText();
    default:
      if (!TakeWord("null") && !TakeWord("true") && !TakeWord("false")) SkipNumber();
  }
}

void JsonReader::End() {
  while (!rest_.empty() && std::string_view(" \t\r\n").find(rest_.front()) != std::string::npos)
    rest_.remove_prefix(1);
  if (!rest_.empty()) Wrong("something behind the end of the document");
}

}  // namespace ZorvSnapUsage
