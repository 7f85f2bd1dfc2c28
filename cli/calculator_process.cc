#include "cli/calculator_process.h"

#include <errno.h>
#include <fmt/format.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>
#include <sstream>
#include <string>

#include "cli/failure.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kLibrary[] = "/libzorvbtrfssnapusage.so";

std::string ProcPath(pid_t pid, const char* name) { return fmt::format("/proc/{}/{}", pid, name); }

// A file of the process; empty when it has ended.
std::string ReadProc(pid_t pid, const char* name) {
  std::ifstream in(ProcPath(pid, name));
  const int error = errno;
  if (!in && error != ENOENT && error != ESRCH)
    throw Failure(kSystemFailure,
                  fmt::format("{} cannot be read ({})", ProcPath(pid, name), strerror(error)),
                  "nothing was done to the process");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The value of a line of /proc/<pid>/status, as far as the end of the text.
const char* ValueOf(const std::string& status, const char* label) {
  const size_t at = status.find(std::string("\n") + label + ":");
  return at == std::string::npos ? "" : status.c_str() + at + strlen(label) + 2;
}

bool IsRoots(const std::string& status) {
  unsigned real = 1, effective = 1;
  return sscanf(ValueOf(status, "Uid"), "%u %u", &real, &effective) == 2 && real == 0 &&
         effective == 0;
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
  return stat(ProcPath(pid, descriptor).c_str(), &status) == 0 && S_ISCHR(status.st_mode) &&
         status.st_rdev == makedev(1, 3);
}

}  // namespace

bool IsRootsProcess(pid_t pid) { return IsRoots(ReadProc(pid, "status")); }

bool IsCalculator(pid_t pid) {
  const std::string status = ReadProc(pid, "status");
  return IsRoots(status) && WithstandsStop(status) && LeadsItsSession(pid) &&
         IsDevNull(pid, "fd/0") && IsDevNull(pid, "fd/1") &&
         ReadProc(pid, "maps").find(kLibrary) != std::string::npos;
}

}  // namespace ZorvSnapUsage
