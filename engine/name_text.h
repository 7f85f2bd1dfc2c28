// name_text.h: names of files, which may be any bytes, as text.
#ifndef ENGINE_NAME_TEXT_H_
#define ENGINE_NAME_TEXT_H_

#include <string>

namespace ZorvEngine {

// Printable ASCII: each other byte, and the backslash, becomes \xHH.  A slash stays.
std::string NameText(const std::string& name);

}  // namespace ZorvEngine

#endif  // ENGINE_NAME_TEXT_H_
