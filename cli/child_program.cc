#include "cli/child_program.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "cli/engine_places.h"
#include "cli/failure.h"

namespace ZorvSnapUsage {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How long a program that is asked to end may take, before it is killed.
constexpr std::chrono::seconds kTimeToEnd{2};

void ResetSignals(CtrlC ctrlC) {
  for (int number = 1; number < NSIG; ++number) (void)signal(number, SIG_DFL);
  if (ctrlC == CtrlC::kDoesNotReachIt) (void)signal(SIGINT, SIG_IGN);
  sigset_t none;
  sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

// In the new process. What is in the way of the program is written to `failure`.
[[noreturn]] void Become(const std::vector<char*>& argv, int output, int errors, CtrlC ctrlC,
                         int failure, pid_t parent) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  ResetSignals(ctrlC);
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const bool ready = null >= 0 && dup2(null, STDIN_FILENO) >= 0 &&
                     dup2(output, STDOUT_FILENO) >= 0 && dup2(errors, STDERR_FILENO) >= 0 &&
                     close_range(STDERR_FILENO + 1, ~0u, CLOSE_RANGE_CLOEXEC) == 0;
  if (ready) (void)execv(argv[0], argv.data());
  const int error = errno;
  (void)!write(failure, &error, sizeof error);
  _exit(1);
}

// The error that kept a new process from becoming its program; 0: none.
int WaitForProgram(int failure) {
  int error = 0;
  ssize_t length;
  while ((length = read(failure, &error, sizeof error)) < 0 && errno == EINTR) continue;
  return length == sizeof error ? error : 0;
}

[[noreturn]] void RefuseToStart(const char* program, int error) {
  const std::string what = fmt::format("{} cannot be started ({})", program, strerror(error));
  for (const int own : {EACCES, ELOOP, ENOENT, ENOEXEC, ENOTDIR, ETXTBSY, ELIBBAD})
    if (error == own) throw Failure(kNotAnEngine, what, HowToGetEngine(program));
  throw SystemFailure(what, "see to the limits of this process (ulimit -a), and try again");
}

}  // namespace

Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    throw SystemFailure(fmt::format("no pipe can be made ({})", strerror(errno)));
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

ChildProgram::ChildProgram(const std::vector<std::string>& argv, int output, int errors,
                           CtrlC ctrlC) {
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  Pipe failure = MakePipe();
  const pid_t self = getpid();
  pid_ = fork();
  if (pid_ == 0) Become(words, output, errors, ctrlC, failure.write.Get(), self);
  if (pid_ < 0) RefuseToStart(words[0], errno);
  failure.write.Reset();
  const int error = WaitForProgram(failure.read.Get());
  if (error == 0) return;
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
  RefuseToStart(words[0], error);
}

ChildProgram::~ChildProgram() {
  if (pid_ < 0) return;
  (void)kill(pid_, SIGTERM);
  const auto end = steady_clock::now() + kTimeToEnd;
  while (steady_clock::now() < end)
    if (WaitForEnd(milliseconds(100))) return;
  (void)kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
}

void ChildProgram::Kill() const {
  if (pid_ >= 0) (void)kill(pid_, SIGKILL);
}

bool ChildProgram::WaitForEnd(milliseconds limit) {
  const auto end = steady_clock::now() + limit;
  for (int pause = 1;; pause *= 2) {
    if (pid_ >= 0 && waitpid(pid_, &status_, WNOHANG) != 0) pid_ = -1;
    if (pid_ < 0) return true;
    const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now()).count();
    if (left <= 0) return false;
    if (poll(nullptr, 0, static_cast<int>(std::min<long>(pause, left))) < 0) return false;
  }
}

}  // namespace ZorvSnapUsage
