// Taking a text apart.  Streams of the C++ library are no use for it: they take lack of memory for
// the end of the text.
#ifndef PLATFORM_LINUX_LINES_H
#define PLATFORM_LINUX_LINES_H

#include <string>
#include <string_view>

namespace ZorvPlatform {

// Takes the next part off the front, up to a separator or the end.  False: there is none.
inline bool TakePart(std::string_view* rest, char separator, std::string_view* part) {
  if (rest->empty()) return false;
  const size_t end = rest->find(separator);
  *part = rest->substr(0, end);
  rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + 1);
  return true;
}

inline bool TakeLine(std::string_view* rest, std::string_view* line) {
  return TakePart(rest, '\n', line);
}

// Without the blanks, and what ends the lines of other systems, at both ends.
inline std::string Trimmed(std::string_view text) {
  constexpr char kBlanks[] = " \t\r";
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return "";
  return std::string(text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1));
}

}  // namespace ZorvPlatform

#endif
