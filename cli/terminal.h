// What is at the other end of a standard stream.
#ifndef CLI_TERMINAL_H_
#define CLI_TERMINAL_H_

#include <stddef.h>

namespace ZorvSnapUsage {

// Whether the stream leads to a terminal that understands control sequences.
bool UnderstandsControls(int fd);

// Whether what goes there is to have colours: a terminal, and no NO_COLOR in the environment.
bool WantsColor(int fd);

// How many columns the terminal has now; a window may be resized at any time. 80 where none says.
size_t ColumnsOfTerminal(int fd);

}  // namespace ZorvSnapUsage

#endif  // CLI_TERMINAL_H_
