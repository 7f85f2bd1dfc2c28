// Which names and task IDs can become parts of paths without leading anywhere else.
#ifndef CLI_NAMES_H_
#define CLI_NAMES_H_

#include <string>

namespace ZorvSnapUsage {

// Whether a share can have this name at all: one component of a path, at most 255 bytes, not "."
// and not "..".
bool CanBeShareName(const std::string& name);

// Whether the names of all files that a calculation of the share makes are short enough.
bool CanBeCalculated(const std::string& shareName);

// Whether the text is a UUID, as all task IDs are. Anything else may be a path, or the beginning of
// many names: files of a task are looked for by the beginning of their names.
bool IsTaskID(const std::string& text);

}  // namespace ZorvSnapUsage

#endif  // CLI_NAMES_H_
