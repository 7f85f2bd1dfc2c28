// sandbox: runs a command in a private world (see sandbox.h).
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

int main(int argc, char** argv) {
  std::vector<std::string> binds;
  int next = 1;
  for (; next + 1 < argc && strcmp(argv[next], "--bind") == 0; next += 2)
    binds.push_back(argv[next + 1]);
  if (next < argc && strcmp(argv[next], "--") == 0) ++next;
  if (next >= argc) {
    fprintf(stderr,
            "usage: sandbox [--bind DIR]... [--] COMMAND [ARGUMENT]...\n"
            "Runs COMMAND as root in a private copy-on-write world; DIRs are written through.\n");
    return 2;
  }
  return ZorvTest::RunInSandbox(binds, [&] {
    execvp(argv[next], argv + next);
    fprintf(stderr, "sandbox: %s: %s\n", argv[next], strerror(errno));
    return 127;
  });
}
