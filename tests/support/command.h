// Runs programs and prepares files for tests; what goes wrong throws, so that a test fails there.
#ifndef TESTS_SUPPORT_COMMAND_H_
#define TESTS_SUPPORT_COMMAND_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace ZorvTest {

// How a program ended: exit status (128 + signal when killed) and what it printed.
struct CommandResult {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs a program (looked for in PATH) to its end. `before` is done in its process first.
CommandResult Run(const std::vector<std::string>& argv, const std::function<void()>& before = {});

// As Run, but anything except exit status 0 throws with what it printed. Returns standard output.
std::string MustRun(const std::vector<std::string>& argv);

// A program of a test's own, as a shell script: written to `path` with mode 0755.
void WriteScript(const std::string& path, const std::string& text);

// Writes or reads a whole file; directories above it are made.
void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);

// Permission bits of `path` (07777), -1 when it is not there.
int ModeOf(const std::string& path);

// Polls until `done` says so. False: not within `seconds`.
bool WaitUntil(const std::function<bool()>& done, double seconds = 60);

// Seconds on a clock that nobody sets.
double Seconds();

// Does something until once it took less than `enough` seconds, at most 10 times; returns the
// shortest time. What else the machine does makes a time longer, never shorter.
double ShortestTime(double enough, const std::function<void()>& action);

// Runs `body` in a forked child and returns its exit status (128 + signal when killed).
int InChild(const std::function<int()>& body);

// Waits for a process that is a child, or came to this one by PR_SET_CHILD_SUBREAPER, and returns
// its exit status (128 + signal when killed); -1 when there is no such child.
int WaitForExit(pid_t pid);

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_COMMAND_H_
