#include "cli/program_run.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "cli/failure.h"
#include "cli/interrupt.h"

namespace ZorvSnapUsage {
namespace {

// How long a signal that comes just before the wait may go unnoticed.
constexpr int kTickMilliseconds = 100;

// How long a program that is asked to end may take, before it is ended.
constexpr int kTicksToEnd = 20;

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    throw SystemFailure(fmt::format("no pipe can be made ({})", strerror(errno)));
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// What the program starts with; posix_spawn wants it in two objects.
class StartState {
 public:
  StartState(int output, int errors) {
    (void)posix_spawn_file_actions_init(&files_);
    (void)posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    (void)posix_spawn_file_actions_adddup2(&files_, output, STDOUT_FILENO);
    (void)posix_spawn_file_actions_adddup2(&files_, errors, STDERR_FILENO);
    (void)posix_spawnattr_init(&attributes_);
    sigset_t none, all;
    (void)sigemptyset(&none);
    (void)sigfillset(&all);
    (void)posix_spawnattr_setsigmask(&attributes_, &none);
    (void)posix_spawnattr_setsigdefault(&attributes_, &all);
    (void)posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~StartState() {
    (void)posix_spawn_file_actions_destroy(&files_);
    (void)posix_spawnattr_destroy(&attributes_);
  }
  StartState(const StartState&) = delete;
  StartState& operator=(const StartState&) = delete;

  const posix_spawn_file_actions_t* Files() const { return &files_; }
  const posix_spawnattr_t* Attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t files_;
  posix_spawnattr_t attributes_;
};

pid_t Start(const std::vector<std::string>& argv, int output, int errors) {
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  const StartState state(output, errors);
  pid_t pid = -1;
  const int error =
      posix_spawn(&pid, words[0], state.Files(), state.Attributes(), words.data(), environ);
  if (error == 0) return pid;
  throw Failure(kNotAnEngine, fmt::format("{} cannot be started ({})", argv[0], strerror(error)),
                "install zorv-btrfs-command, or the engine as /sbin/btrfs");
}

// A program that has been started, and has ended when this goes.
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  ~Child() {
    if (pid_ < 0) return;
    (void)kill(pid_, SIGTERM);
    for (int tick = 0; tick < kTicksToEnd && pid_ >= 0; ++tick) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) != 0) pid_ = -1;
      if (pid_ >= 0) (void)poll(nullptr, 0, kTickMilliseconds);
    }
    if (pid_ < 0) return;
    (void)kill(pid_, SIGKILL);
    (void)Wait();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  int Wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) continue;
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_;
};

// Appends what there is to be read, and closes the descriptor at its end.
void ReadSome(UniqueFd& fd, std::string& text) {
  char buffer[65536];
  const ssize_t got = read(fd.Get(), buffer, sizeof buffer);
  if (got > 0) text.append(buffer, static_cast<size_t>(got));
  if (got == 0 || (got < 0 && errno != EINTR)) fd.Reset();
}

// Takes the whole lines out of `text`; at the end what is left is one, too.
void TakeLines(std::string& text, bool atEnd, const ProgramWatch& watch, std::string& last) {
  if (atEnd && !text.empty() && text.back() != '\n') text += '\n';
  for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
    last = text.substr(0, end);
    watch.errorLine(last);
  }
}

}  // namespace

ProgramEnd RunProgram(const std::vector<std::string>& argv, const ProgramWatch& watch) {
  Pipe output = MakePipe(), errors = MakePipe();
  Child child(Start(argv, output.write.Get(), errors.write.Get()));
  output.write.Reset();
  errors.write.Reset();
  ProgramEnd end;
  std::string errorText;
  while (output.read.Valid() || errors.read.Valid()) {
    pollfd watched[] = {{output.read.Get(), POLLIN, 0}, {errors.read.Get(), POLLIN, 0}};
    const int ready = poll(watched, 2, kTickMilliseconds);
    Interrupt::RequireNone();
    watch.tick();
    if (ready <= 0) continue;
    if (watched[0].revents != 0) ReadSome(output.read, end.output);
    if (watched[1].revents != 0) ReadSome(errors.read, errorText);
    TakeLines(errorText, /*atEnd=*/!errors.read.Valid(), watch, end.lastError);
    if (end.output.size() > watch.mostOutput) output.read.Reset();
  }
  end.waitStatus = child.Wait();
  return end;
}

}  // namespace ZorvSnapUsage
