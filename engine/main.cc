// btrfs: answers `subvolume size`; gives every other command to the real btrfs program.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "engine/front.h"
#include "engine/hand_over.h"
#include "engine/lines.h"
#include "engine/options.h"

namespace {

using namespace ZorvEngine;

// Makes sure that no file opened later takes the place of a standard stream that the caller closed.
// What would be written to such a stream fails, as it would have.
bool HoldStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDONLY) != fd) return false;
  return true;
}

// A reader that has gone, and a file that may not grow, are seen as errors of the write.  What is
// started inherits this; the real program must not.
void SeeFailedWrites() {
  (void)signal(SIGPIPE, SIG_IGN);
  (void)signal(SIGXFSZ, SIG_IGN);
}

int Print(const char* text) { return WriteLine(STDOUT_FILENO, text) ? 0 : 1; }

int SubvolumeSize(const std::vector<std::string>& words) {
  if (!HoldStandardStreams()) return 1;
  Options options;
  const Status parsed = ParseOptions(words, &options);
  if (!parsed.Ok()) return SayFailure(parsed.Text());
  if (options.help) return Print(kHelpText);
  if (options.version) return Print(kVersionLine);
  return RunFront(options);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
  if (!IsSizeCommand(words)) return HandOver(argv, RealBtrfsPaths());
  SeeFailedWrites();
  return SubvolumeSize({words.begin() + 2, words.end()});
}
