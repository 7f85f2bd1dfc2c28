// Names and numbers as people read them.
#ifndef CLI_TEXT_H_
#define CLI_TEXT_H_

#include <string>

namespace ZorvSnapUsage {

// A name on one line: control and line-breaking characters, marks that turn the direction of text,
// bytes that are not UTF-8 and the backslash become \n, \t, \\ or \xNN (one for each byte).
std::string Escaped(const std::string& name);

// 'name', escaped.
std::string Quoted(const std::string& name);

// A name as a word of a shell command line, for a command that the user may copy.
std::string ShellWord(const std::string& name);

// Text that is valid UTF-8: bytes that are not become U+FFFD.
std::string ValidUtf8(const std::string& text);

// How many columns of a terminal the text may take; at least the true width.
size_t ColumnsAtMost(const std::string& text);

// The longest beginning of the text that fits into so many columns.
std::string CutToColumns(const std::string& text, size_t columns);

// Seconds as 0:07, 12:34 or 1:02:03.
std::string ElapsedText(long seconds);

// Seconds as 42 s, 12 min, 3 h 5 min or 4 d 3 h: how long ago something was.
std::string SpanText(long seconds);

}  // namespace ZorvSnapUsage

#endif  // CLI_TEXT_H_
