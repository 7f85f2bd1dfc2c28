#include "platform/linux/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include "base/unique_fd.h"
#include "platform/linux/process.h"

namespace ZorvPlatform {

namespace {

using Clock = std::chrono::steady_clock;

// Pointers to the words, with a null behind them, as exec wants them.
std::vector<char*> Pointers(std::vector<std::string>* words) {
  std::vector<char*> pointers;
  for (std::string& word : *words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Waits until there is something to read.  False: the time has run out.
bool AwaitOutput(int fd, Clock::time_point end) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    pollfd waiting{fd, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(left.count())) > 0) return true;
  }
}

// Reads to the end of the output.  False: `why` says in words what was in the way.
bool ReadOutput(int fd, Clock::time_point end, size_t most, std::string* output, std::string* why) {
  char piece[4096];
  for (;;) {
    if (!AwaitOutput(fd, end)) {
      *why = "does not end";
      return false;
    }
    const ssize_t got = read(fd, piece, sizeof piece);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (got < 0) *why = std::string("cannot be read: ") + strerror(errno);
      return got == 0;
    }
    output->append(piece, static_cast<size_t>(got));
    if (output->size() > most) {
      *why = "prints too much";
      return false;
    }
  }
}

// Ends the process unless it has ended, by its time.  Its wait status.
int End(pid_t child, bool atOnce, Clock::time_point end) {
  constexpr timespec kPause = {0, 1000000};
  int status = 0;
  while (!atOnce) {
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended == child || (ended < 0 && errno != EINTR)) return ended == child ? status : 0;
    atOnce = Clock::now() >= end;
    (void)nanosleep(&kPause, nullptr);
  }
  (void)kill(child, SIGKILL);
  return AwaitChild(child);
}

std::string Ended(int status) {
  return WIFSIGNALED(status) ? "was ended by signal " + std::to_string(WTERMSIG(status))
                             : "ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

bool RunForOutput(const std::vector<std::string>& argv, int seconds, size_t most,
                  std::string* output, std::string* why) {
  std::vector<std::string> words = argv;
  std::vector<std::string> variables = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
  const std::vector<char*> arguments = Pointers(&words);
  const std::vector<char*> environment = Pointers(&variables);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    *why = std::string("cannot be started: ") + strerror(errno);
    return false;
  }
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  const pid_t child = Spawn({arguments[0], arguments.data(), environment.data(), writeEnd.Get(),
                             /*errorsShown=*/false});
  if (child < 0) {
    *why = std::string("cannot be started: ") + strerror(errno);
    return false;
  }
  writeEnd.Reset();
  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  bool read = false;
  try {
    read = ReadOutput(readEnd.Get(), end, most, output, why);
  } catch (...) {  // no memory: the process goes all the same
    (void)End(child, /*atOnce=*/true, end);
    throw;
  }
  const int status = End(child, /*atOnce=*/!read, end);
  if (!read || status == 0) return read;
  *why = Ended(status);
  return false;
}

}  // namespace ZorvPlatform
