#include "cli/byte_count.h"

#include <ctype.h>
#include <stdlib.h>

#include <string_view>

namespace ZorvSnapUsage {
namespace {

constexpr std::string_view kLetters = "KMGTPE";

// The power that a letter means; 0: none.
unsigned PowerOf(char letter) {
  const size_t at = kLetters.find(static_cast<char>(toupper(letter)));
  return at == std::string_view::npos ? 0 : static_cast<unsigned>(at) + 1;
}

// What one unit is: "" and "B", "K" and "KiB", "KB". 0: no unit.
unsigned long long UnitOf(std::string_view text) {
  if (text.empty() || text == "B") return 1;
  const unsigned power = PowerOf(text[0]);
  const std::string_view rest = text.substr(1);
  if (power == 0 || (!rest.empty() && rest != "iB" && rest != "B")) return 0;
  unsigned long long unit = 1;
  for (unsigned n = 0; n < power; ++n) unit *= rest == "B" ? 1000 : 1024;
  return unit;
}

}  // namespace

std::optional<unsigned long long> ParseByteCount(const std::string& text) {
  constexpr std::string_view kDigits = "0123456789";
  const size_t whole = text.find_first_not_of(kDigits);
  if (whole == 0 || text.empty()) return std::nullopt;
  size_t end = whole;
  if (whole != std::string::npos && text[whole] == '.') {
    end = text.find_first_not_of(kDigits, whole + 1);
    if (end == std::string::npos || end == whole + 1) return std::nullopt;  // parts need a unit
  }
  const unsigned long long unit =
      UnitOf(end == std::string::npos ? std::string_view() : std::string_view(text).substr(end));
  if (unit == 0 || (unit == 1 && end != whole)) return std::nullopt;
  // 64 bits of mantissa: whole numbers stay exact, and parts of a byte do not matter. A number of
  // thousands of digits is infinite, or nothing.
  const long double bytes =
      strtold(text.substr(0, end).c_str(), nullptr) * static_cast<long double>(unit);
  if (bytes >= 18446744073709551616.0L) return std::nullopt;
  return static_cast<unsigned long long>(bytes);
}

}  // namespace ZorvSnapUsage
