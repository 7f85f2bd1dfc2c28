#include "cli/terminal.h"

#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace ZorvSnapUsage {

bool UnderstandsControls(int fd) {
  const char* const terminal = getenv("TERM");
  return isatty(fd) == 1 && (terminal == nullptr || strcmp(terminal, "dumb") != 0);
}

bool WantsColor(int fd) {
  const char* const refused = getenv("NO_COLOR");
  return UnderstandsControls(fd) && (refused == nullptr || *refused == '\0');
}

size_t ColumnsOfTerminal(int fd) {
  winsize size{};
  if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

}  // namespace ZorvSnapUsage
