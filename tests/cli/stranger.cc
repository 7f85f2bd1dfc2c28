#include "tests/cli/stranger.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "base/unique_fd.h"
#include "tests/support/command.h"
#include "tests/support/user_rights.h"

namespace ZorvTest {
namespace {

void Ignore(int) {}

[[noreturn]] void Become(const Likeness& likeness) {
  if (likeness.session) setsid();
  const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
  const UniqueFd other(open("/dev/zero", O_RDWR | O_CLOEXEC));
  dup2(likeness.nullInput ? null.Get() : other.Get(), STDIN_FILENO);
  dup2(likeness.nullOutput ? null.Get() : other.Get(), STDOUT_FILENO);
  const UniqueFd library(
      open(ZORV_BINARY_DIR "/lib/libzorvbtrfssnapusage.so.0", O_RDONLY | O_CLOEXEC));
  if (likeness.library &&
      mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, library.Get(), 0) == MAP_FAILED)
    _exit(1);
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  if (likeness.stopBlocked) sigprocmask(SIG_BLOCK, &stop, nullptr);
  if (likeness.stopCaught) signal(SIGTERM, Ignore);
  if (!likeness.root) BecomeUser(4711);
  if (!likeness.startedByRoot && setresuid(4711, 0, 0) != 0) _exit(1);
  raise(SIGSTOP);
  for (;;) pause();
}

}  // namespace

Stranger::Stranger(const Likeness& likeness) {
  pid_ = fork();
  if (pid_ == 0) Become(likeness);
  int status = 0;
  if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status))
    throw std::runtime_error("no stranger");
  kill(pid_, SIGCONT);
}

Stranger::~Stranger() {
  if (ended_) return;
  kill(pid_, SIGKILL);
  (void)WaitForExit(pid_);
}

bool Stranger::WasSignalled() {
  int status = 0;
  if (!ended_) ended_ = waitpid(pid_, &status, WNOHANG) == pid_;
  if (ended_) return true;
  const std::string text = ReadFile("/proc/" + std::to_string(pid_) + "/status");
  const size_t at = text.find("ShdPnd:");
  return (strtoull(text.c_str() + at + sizeof "ShdPnd:", nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
}

}  // namespace ZorvTest
