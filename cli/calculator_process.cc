#include "cli/calculator_process.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>

#include "base/unique_fd.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kLibrary[] = "/libzorvbtrfssnapusage.so";

std::string ProcPath(pid_t pid, const char* name) { return fmt::format("/proc/{}/{}", pid, name); }

bool IsThere(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

// Gives up unless a look at the process failed with `error` because it has ended: where /proc is
// not to be had, or hides the process, that looks the same.
void RequireEnded(pid_t pid, int error) {
  if (error == ESRCH || (error == ENOENT && !IsThere(pid))) return;
  throw CannotBeLookedAt(pid, error);
}

// A file of the process; empty when it has ended.
std::string ReadProc(pid_t pid, const char* name) {
  const UniqueFd fd(open(ProcPath(pid, name).c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  char buffer[4096];
  ssize_t got = fd.Valid() ? 1 : -1;
  while (got > 0 && (got = read(fd.Get(), buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<size_t>(got));
  if (got == 0) return text;
  RequireEnded(pid, errno);
  return "";
}

// The value of a line of /proc/<pid>/status, as far as the end of the text.
const char* ValueOf(const std::string& status, const char* label) {
  const size_t at = status.find(std::string("\n") + label + ":");
  return at == std::string::npos ? "" : status.c_str() + at + strlen(label) + 2;
}

struct Users {
  unsigned real = 1;
  unsigned effective = 1;
};

Users UsersOf(const std::string& status) {
  Users users;
  (void)sscanf(ValueOf(status, "Uid"), "%u %u", &users.real, &users.effective);
  return users;
}

// Blocked from its beginning, and caught before it is ever let in.
bool WithstandsStop(const std::string& status) {
  const auto has = [&status](const char* set) {
    return (strtoull(ValueOf(status, set), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
  };
  return has("SigBlk") || has("SigCgt");
}

// The name of the program, in parentheses, may hold anything: what follows begins behind the last.
bool LeadsItsSession(pid_t pid) {
  const std::string stat = ReadProc(pid, "stat");
  const size_t name = stat.rfind(')');
  int session = 0;
  return name != std::string::npos &&
         sscanf(stat.c_str() + name + 1, " %*c %*d %*d %d", &session) == 1 && session == pid;
}

bool IsDevNull(pid_t pid, const char* descriptor) {
  struct stat status;
  if (stat(ProcPath(pid, descriptor).c_str(), &status) == 0)
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
  // One that is there may have it closed.
  if (errno != ENOENT) RequireEnded(pid, errno);
  return false;
}

}  // namespace

Failure CannotBeLookedAt(pid_t pid, int error) {
  return Failure(kSystemFailure,
                 fmt::format("process {} cannot be looked at ({})", pid, strerror(error)),
                 "it may be a calculation at work, so nothing was done to it or to its record; see "
                 "to that, and try again");
}

bool IsRootsProcess(pid_t pid) {
  const Users users = UsersOf(ReadProc(pid, "status"));
  return users.real == 0 && users.effective == 0;
}

bool IsCalculator(pid_t pid) {
  const std::string status = ReadProc(pid, "status");
  return UsersOf(status).effective == 0 && WithstandsStop(status) && LeadsItsSession(pid) &&
         IsDevNull(pid, "fd/0") && IsDevNull(pid, "fd/1") &&
         ReadProc(pid, "maps").find(kLibrary) != std::string::npos;
}

}  // namespace ZorvSnapUsage
