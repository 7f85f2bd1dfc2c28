#include "tests/support/user_rights.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "base/unique_fd.h"
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

void Require(bool done, const char* what) {
  if (done) return;
  dprintf(STDERR_FILENO, "%s: %s\n", what, strerror(errno));
  _exit(126);
}

bool Write(const std::string& path, const std::string& text) {
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  return write(fd.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// In a process outside the namespace: who is who in that of `pid`.
bool MapUser(pid_t pid, uid_t user) {
  const std::string process = "/proc/" + std::to_string(pid);
  const std::string line = "0 " + std::to_string(user) + " 1";
  return Write(process + "/uid_map", line) && Write(process + "/gid_map", line);
}

}  // namespace

void BecomeUser(uid_t user) {
  Require(setgroups(0, nullptr) == 0 && setgid(user) == 0 && setuid(user) == 0, "another user");
}

void BecomeRootOfUserNamespace(uid_t user) {
  int entered[2];
  Require(pipe2(entered, O_CLOEXEC) == 0, "pipe");
  const pid_t self = getpid();
  const pid_t outside = fork();
  Require(outside >= 0, "fork");
  if (outside == 0) {
    char go = 0;
    _exit(read(entered[0], &go, 1) == 1 && MapUser(self, user) ? 0 : 1);
  }
  Require(setgroups(0, nullptr) == 0, "setgroups");
  Require(unshare(CLONE_NEWUSER) == 0, "a user namespace");
  Require(write(entered[1], "x", 1) == 1 && WaitForExit(outside) == 0,
          "the users of the namespace");
  Require(setgid(0) == 0 && setuid(0) == 0, "root of the namespace");
}

}  // namespace ZorvTest
