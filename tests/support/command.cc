#include "tests/support/command.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "base/unique_fd.h"

namespace ZorvTest {
namespace {

int ExitOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// Ends a forked child without what the test's own process does at its end. Only a build that counts
// branches (scripts/coverage.sh) goes through exit(): there the counts of each library are written.
[[noreturn]] void EndChild(int status) {
#ifdef ZORV_COUNTS_BRANCHES
  exit(status);
#else
  _exit(status);
#endif
}

// An unnamed file that takes a program's output, so that nothing blocks on a full pipe.
UniqueFd OutputFile() {
  UniqueFd fd(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (!fd.Valid()) throw std::runtime_error(std::string("no temporary file: ") + strerror(errno));
  return fd;
}

std::string Content(const UniqueFd& fd) {
  std::string text;
  char buffer[65536];
  off_t at = 0;
  for (ssize_t n; (n = pread(fd.Get(), buffer, sizeof buffer, at)) > 0; at += n)
    text.append(buffer, static_cast<size_t>(n));
  return text;
}

}  // namespace

CommandResult Run(const std::vector<std::string>& argv, const std::function<void()>& before) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const UniqueFd out = OutputFile();
  const UniqueFd err = OutputFile();
  const int status = InChild([&] {
    dup2(out.Get(), STDOUT_FILENO);
    dup2(err.Get(), STDERR_FILENO);
    if (before) before();
    execvp(args[0], args.data());
    dprintf(STDERR_FILENO, "%s: %s\n", args[0], strerror(errno));
    return 127;
  });
  return {status, Content(out), Content(err)};
}

std::string MustRun(const std::vector<std::string>& argv) {
  const CommandResult result = Run(argv);
  if (result.status == 0) return result.out;
  std::string line;
  for (const std::string& arg : argv) line += arg + " ";
  throw std::runtime_error(line + "ended with " + std::to_string(result.status) + "\n" +
                           result.out + result.err);
}

void WriteScript(const std::string& path, const std::string& text) {
  std::filesystem::remove(path);  // a program that still runs cannot be written to
  WriteFile(path, "#!/bin/bash\n" + text);
  std::filesystem::permissions(path, std::filesystem::perms(0755));
}

void WriteFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content << std::flush;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

int ModeOf(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

bool WaitUntil(const std::function<bool()>& done, double seconds) {
  const double end = Seconds() + seconds;
  while (!done()) {
    if (Seconds() > end) return false;
    usleep(5000);
  }
  return true;
}

double Seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double ShortestTime(double enough, const std::function<void()>& action) {
  double shortest = std::numeric_limits<double>::infinity();
  for (int attempt = 0; attempt < 10 && shortest >= enough; ++attempt) {
    const double begin = Seconds();
    action();
    shortest = std::min(shortest, Seconds() - begin);
  }
  return shortest;
}

int InChild(const std::function<int()>& body) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (pid == 0) {
    const int status = body();
    fflush(nullptr);
    EndChild(status);
  }
  return WaitForExit(pid);
}

int WaitForExit(pid_t pid) {
  int status = 0;
  pid_t ended;
  do {
    ended = waitpid(pid, &status, 0);
  } while (ended < 0 && errno == EINTR);
  return ended == pid ? ExitOf(status) : -1;
}

}  // namespace ZorvTest
