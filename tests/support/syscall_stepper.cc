#include "tests/support/syscall_stepper.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "base/unique_fd.h"
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

constexpr int kNone = -1;

// What the arguments of a call are, as far as a test wants to see or change them.
struct CallShape {
  long call;
  const char* name;
  std::vector<int> paths;
  int fd = kNone;
  int length = kNone;  // bytes, or pieces
  int flags = kNone;   // of an open
};

const CallShape kShapes[] = {
    {SYS_open, "open", {0}, kNone, kNone, 1},
    {SYS_openat, "openat", {1}, kNone, kNone, 2},
    {SYS_creat, "creat", {0}},
    {SYS_close, "close", {}, 0},
    {SYS_read, "read", {}, 0, 2},
    {SYS_pread64, "pread64", {}, 0, 2},
    {SYS_readv, "readv", {}, 0, 2},
    {SYS_write, "write", {}, 0, 2},
    {SYS_pwrite64, "pwrite64", {}, 0, 2},
    {SYS_writev, "writev", {}, 0, 2},
    {SYS_pwritev, "pwritev", {}, 0, 2},
    {SYS_copy_file_range, "copy_file_range", {}, 2, 4},
    {SYS_sendfile, "sendfile", {}, 0, 3},
    {SYS_rename, "rename", {0, 1}},
    {SYS_renameat, "renameat", {1, 3}},
    {SYS_renameat2, "renameat2", {1, 3}},
    {SYS_unlink, "unlink", {0}},
    {SYS_unlinkat, "unlinkat", {1}},
    {SYS_mkdir, "mkdir", {0}},
    {SYS_mkdirat, "mkdirat", {1}},
    {SYS_rmdir, "rmdir", {0}},
    {SYS_link, "link", {0, 1}},
    {SYS_linkat, "linkat", {1, 3}},
    {SYS_symlink, "symlink", {0, 1}},
    {SYS_symlinkat, "symlinkat", {0, 2}},
    {SYS_mknod, "mknod", {0}},
    {SYS_mknodat, "mknodat", {1}},
    {SYS_truncate, "truncate", {0}},
    {SYS_ftruncate, "ftruncate", {}, 0},
    {SYS_fallocate, "fallocate", {}, 0},
    {SYS_chmod, "chmod", {0}},
    {SYS_fchmod, "fchmod", {}, 0},
    {SYS_fchmodat, "fchmodat", {1}},
    {SYS_chown, "chown", {0}},
    {SYS_lchown, "lchown", {0}},
    {SYS_fchown, "fchown", {}, 0},
    {SYS_fchownat, "fchownat", {1}},
    {SYS_utimensat, "utimensat", {1}},
    {SYS_fsync, "fsync", {}, 0},
    {SYS_fdatasync, "fdatasync", {}, 0},
    {SYS_sync_file_range, "sync_file_range", {}, 0},
    {SYS_fcntl, "fcntl", {}, 0},
    {SYS_ioctl, "ioctl", {}, 0},
    {SYS_fstat, "fstat", {}, 0},
    {SYS_newfstatat, "newfstatat", {1}, 0},
    {SYS_statx, "statx", {1}, 0},
    {SYS_statfs, "statfs", {0}},
    {SYS_fstatfs, "fstatfs", {}, 0},
    {SYS_readlink, "readlink", {0}},
    {SYS_getdents64, "getdents64", {}, 0},
    {SYS_dup2, "dup2", {}, 0},
    {SYS_dup3, "dup3", {}, 0},
    {SYS_pipe2, "pipe2", {}},
    {SYS_clone, "clone", {}},
    {SYS_clone3, "clone3", {}},
    {SYS_vfork, "vfork", {}},
    {SYS_execve, "execve", {0}},
    {SYS_wait4, "wait4", {}},
    {SYS_pidfd_open, "pidfd_open", {}},
    {SYS_pidfd_send_signal, "pidfd_send_signal", {}},
    {SYS_poll, "poll", {}},
    {SYS_mmap, "mmap", {}, 4},
    {SYS_mprotect, "mprotect", {}},
    {SYS_io_uring_setup, "io_uring_setup", {}},
    {SYS_io_uring_enter, "io_uring_enter", {}},
};

const CallShape* ShapeOf(long call) {
  const auto shape = std::find_if(std::begin(kShapes), std::end(kShapes),
                                  [call](const CallShape& row) { return row.call == call; });
  return shape == std::end(kShapes) ? nullptr : shape;
}

// ---- In the process that is to be stepped -------------------------------------------------------

// Stops the process at each watched call, and at setsid, which tells a calculator from its caller.
std::vector<sock_filter> FilterFor(const std::vector<WatchedCall>& calls) {
  const auto load = [](size_t offset) {
    return sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
  };
  const auto give = [](uint32_t verdict) { return sock_filter BPF_STMT(BPF_RET | BPF_K, verdict); };
  const auto unlessEqual = [](uint32_t value, uint8_t skip) {
    return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, skip);
  };
  std::vector<sock_filter> filter = {load(offsetof(seccomp_data, nr))};
  for (const WatchedCall& watched : calls) {
    const CallShape* const shape = ShapeOf(watched.call);
    const auto number = static_cast<uint32_t>(watched.call);
    if (!watched.onlyToWrite || shape == nullptr || shape->flags == kNone) {
      filter.insert(filter.end(), {unlessEqual(number, 1), give(SECCOMP_RET_TRACE)});
      continue;
    }
    // The low half of the argument, little-endian.
    const size_t flags = offsetof(seccomp_data, args) + sizeof(uint64_t) * shape->flags;
    constexpr uint32_t kWriting = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;
    filter.insert(filter.end(), {unlessEqual(number, 4), load(flags),
                                 BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, kWriting, 0, 1),
                                 give(SECCOMP_RET_TRACE), give(SECCOMP_RET_ALLOW)});
  }
  filter.insert(filter.end(), {unlessEqual(SYS_setsid, 1), give(SECCOMP_RET_TRACE)});
  filter.push_back(give(SECCOMP_RET_ALLOW));
  return filter;
}

// Programs under AddressSanitizer look for leaks at their end, for which they trace themselves;
// here somebody does already.
void LeaveOutLeakChecks() {
#ifdef __SANITIZE_ADDRESS__
  const char* const told = getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", (std::string(told == nullptr ? "" : told) + ":detect_leaks=0").c_str(), 1);
#endif
}

// As root no promise to gain no privileges is asked for.
bool InstallFilter(const std::vector<WatchedCall>& calls) {
  std::vector<sock_filter> filter = FilterFor(calls);
  const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
  return syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
}

// ---- Looking at a stopped process ---------------------------------------------------------------

// The text at an address of the process; what cannot be read ends it.
std::string TextAt(pid_t pid, uint64_t address) {
  std::string text;
  while (text.size() < 4096) {
    char piece[64];
    // Not across a page: what comes after may not be there.
    const size_t most = std::min<size_t>(sizeof piece, 4096 - address % 4096);
    iovec here = {piece, most};
    iovec there = {reinterpret_cast<void*>(address), most};
    if (process_vm_readv(pid, &here, 1, &there, 1, 0) != static_cast<ssize_t>(most)) return text;
    const size_t length = strnlen(piece, most);
    text.append(piece, length);
    if (length < most) return text;
    address += most;
  }
  return text;
}

std::string NameOfDescriptor(pid_t pid, uint64_t fd) {
  char name[4096];
  const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), name, sizeof name);
  return length < 0 ? std::to_string(fd) : std::string(name, static_cast<size_t>(length));
}

std::vector<std::string> PathsOf(pid_t pid, long call, const uint64_t* arguments) {
  std::vector<std::string> paths;
  if (const CallShape* const shape = ShapeOf(call))
    for (const int path : shape->paths) paths.push_back(TextAt(pid, arguments[path]));
  return paths;
}

std::string TextOf(pid_t pid, long call, const uint64_t* arguments,
                   const std::vector<std::string>& paths) {
  const CallShape* const shape = ShapeOf(call);
  if (shape == nullptr) return "call " + std::to_string(call);
  std::vector<std::string> words = paths;
  if (shape->fd != kNone) words.push_back(NameOfDescriptor(pid, arguments[shape->fd]));
  if (shape->length != kNone) words.push_back(std::to_string(arguments[shape->length]));
  std::string text = std::string(shape->name) + "(";
  for (size_t i = 0; i < words.size(); ++i) text += (i == 0 ? "" : ", ") + words[i];
  return text + ")";
}

// The process of a thread.
pid_t ProcessOf(pid_t thread) {
  std::ifstream in("/proc/" + std::to_string(thread) + "/status");
  for (std::string word; in >> word;) {
    pid_t process = -1;
    if (word == "Tgid:" && in >> process) return process;
  }
  return thread;
}

std::vector<std::string> ArgumentsOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
  std::vector<std::string> words;
  for (std::string word; std::getline(in, word, '\0');) words.push_back(word);
  return words;
}

Role RoleOfProgram(const std::vector<std::string>& words) {
  if (words.empty() || words[0] != "/sbin/btrfs") return Role::kOther;
  const bool asked = std::find(words.begin(), words.end(), "--version") != words.end();
  return asked ? Role::kOther : Role::kFront;
}

// ---- Changing a stopped process -----------------------------------------------------------------

#ifdef __x86_64__

unsigned long long user_regs_struct::*const kArgumentRegisters[] = {
    &user_regs_struct::rdi, &user_regs_struct::rsi, &user_regs_struct::rdx,
    &user_regs_struct::r10, &user_regs_struct::r8,  &user_regs_struct::r9};

template <typename Change>
void ChangeRegisters(pid_t pid, const Change& change) {
  user_regs_struct registers;
  if (ptrace(PTRACE_GETREGS, pid, nullptr, &registers) != 0) return;  // killed meanwhile
  change(registers);
  (void)ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
}

void MakeFail(pid_t pid, uint64_t error) {
  ChangeRegisters(pid, [error](user_regs_struct& registers) {
    registers.orig_rax = ~0ULL;  // no call at all, and what it would have returned
    registers.rax = -error;
  });
}

// Of a call that has been made.
void SetResult(pid_t pid, uint64_t error) {
  ChangeRegisters(pid, [error](user_regs_struct& registers) { registers.rax = -error; });
}

void SetArgument(pid_t pid, int argument, uint64_t value) {
  ChangeRegisters(pid, [argument, value](user_regs_struct& registers) {
    registers.*kArgumentRegisters[argument] = value;
  });
}

#else

[[noreturn]] void RefuseToChange() {
  throw std::logic_error("calls are changed on x86-64 alone; killing works everywhere");
}
void MakeFail(pid_t, uint64_t) { RefuseToChange(); }
void SetResult(pid_t, uint64_t) { RefuseToChange(); }
void SetArgument(pid_t, int, uint64_t) { RefuseToChange(); }

#endif

void Shorten(pid_t pid, const Step& step, uint64_t length) {
  const CallShape* const shape = ShapeOf(step.call);
  if (shape == nullptr || shape->length == kNone) return;
  if (step.arguments[shape->length] > length) SetArgument(pid, shape->length, length);
}

void Continue(pid_t pid, int signal = 0) {
  (void)ptrace(PTRACE_CONT, pid, nullptr, signal);  // fails only for one that was killed meanwhile
}

// Holds SIGCHLD back, so that it can be waited for, in one scope.
class HeldChildSignal {
 public:
  HeldChildSignal() { sigprocmask(SIG_BLOCK, &set_, &saved_); }
  ~HeldChildSignal() { Restore(); }
  HeldChildSignal(const HeldChildSignal&) = delete;
  HeldChildSignal& operator=(const HeldChildSignal&) = delete;

  void Restore() const { sigprocmask(SIG_SETMASK, &saved_, nullptr); }

  static sigset_t Set() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return set;
  }

 private:
  const sigset_t set_ = Set();
  sigset_t saved_;
};

int ExitOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

}  // namespace

const char* NameOf(Role role) {
  switch (role) {
    case Role::kCaller:
      return "caller";
    case Role::kCalculator:
      return "calculator";
    case Role::kFront:
      return "front";
    case Role::kWorker:
      return "worker";
    case Role::kOther:
      break;
  }
  return "other";
}

std::vector<WatchedCall> FileChangingCalls() {
  std::vector<WatchedCall> calls = {{SYS_open, true}, {SYS_openat, true}};
  for (const long call : {SYS_creat,    SYS_write,           SYS_pwrite64,  SYS_writev,
                          SYS_pwritev,  SYS_copy_file_range, SYS_sendfile,  SYS_rename,
                          SYS_renameat, SYS_renameat2,       SYS_unlink,    SYS_unlinkat,
                          SYS_mkdir,    SYS_mkdirat,         SYS_rmdir,     SYS_link,
                          SYS_linkat,   SYS_symlink,         SYS_symlinkat, SYS_mknod,
                          SYS_mknodat,  SYS_truncate,        SYS_ftruncate, SYS_fallocate,
                          SYS_chmod,    SYS_fchmod,          SYS_fchmodat,  SYS_chown,
                          SYS_lchown,   SYS_fchown,          SYS_fchownat,  SYS_utimensat,
                          SYS_fsync,    SYS_fdatasync})
    calls.push_back({call});
  return calls;
}

std::function<int()> Program(std::vector<std::string> argv, std::string output) {
  return [argv = std::move(argv), output = std::move(output)] {
    if (!output.empty()) {
      const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
    }
    std::vector<char*> words;
    for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    execv(words[0], words.data());
    return 127;
  };
}

SyscallStepper::SyscallStepper(std::vector<WatchedCall> calls) : calls_(std::move(calls)) {}

int SyscallStepper::Run(const std::function<int()>& body, const Decide& decide, double seconds) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  decide_ = &decide;
  steps_.clear();
  stepsOfCall_.clear();
  const HeldChildSignal held;
  Begin([&] {
    held.Restore();
    return body();
  });
  FollowAll(Seconds() + seconds);
  return firstStatus_;
}

// The process waits at the end of a pipe until it is held, and puts up the filter only then: a
// filter that stops a process needs somebody who lets it go on.
void SyscallStepper::Begin(const std::function<int()>& body) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
  fflush(nullptr);
  first_ = fork();
  if (first_ < 0) throw std::runtime_error("no process");
  if (first_ == 0) {
    writeEnd.Reset();
    char byte;
    if (read(readEnd.Get(), &byte, 1) != 0) _exit(126);
    readEnd.Reset();
    LeaveOutLeakChecks();
    if (!InstallFilter(calls_)) _exit(125);
    const int status = body();
    fflush(nullptr);
    _exit(status);
  }
  constexpr long kOptions = PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACESECCOMP |
                            PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
                            PTRACE_O_TRACEEXEC;
  if (ptrace(PTRACE_SEIZE, first_, nullptr, kOptions) != 0)
    throw std::runtime_error(std::string("ptrace: ") + strerror(errno));
  tracees_[first_] = {Role::kCaller, first_};
}

// Also takes leave of those who are nobody's tracees any more, but came to this process as orphans.
void SyscallStepper::FollowAll(double end) {
  for (;;) {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG | __WALL);
    if (pid > 0) {
      Take(pid, status);
    } else if (pid < 0 && errno == ECHILD) {
      return;
    } else if (!WaitForSignal(end)) {
      GiveUp();
    }
  }
}

bool SyscallStepper::WaitForSignal(double end) const {
  const double left = end - Seconds();
  if (left <= 0) return false;
  const sigset_t set = HeldChildSignal::Set();
  const timespec wait = {static_cast<time_t>(left),
                         static_cast<long>((left - static_cast<time_t>(left)) * 1e9)};
  return sigtimedwait(&set, nullptr, &wait) >= 0 || errno == EINTR;
}

void SyscallStepper::GiveUp() {
  std::string text = "still running:";
  for (const auto& [pid, tracee] : tracees_)
    text += std::string(" ") + NameOf(tracee.role) + " " + std::to_string(pid) + " after " +
            (tracee.last.empty() ? "no step" : tracee.last) + ";";
  for (const auto& [pid, tracee] : tracees_) (void)kill(pid, SIGKILL);
  for (const pid_t pid : early_) (void)kill(pid, SIGKILL);
  while (waitpid(-1, nullptr, __WALL) > 0) {
  }
  tracees_.clear();
  early_.clear();
  throw std::runtime_error(text);
}

void SyscallStepper::Take(pid_t pid, int status) {
  if (!WIFSTOPPED(status)) return TakeEnd(pid, status);
  const auto tracee = tracees_.find(pid);
  if (tracee == tracees_.end())
    early_.insert(pid);  // its parent's word about it is still to come
  else
    TakeStop(pid, tracee->second, status);
}

void SyscallStepper::TakeEnd(pid_t pid, int status) {
  early_.erase(pid);
  if (pid == first_) firstStatus_ = ExitOf(status);
  const auto tracee = tracees_.find(pid);
  if (tracee == tracees_.end()) return;  // its end was taken note of; it came here as an orphan
  const Tracee ended = tracee->second;
  tracees_.erase(tracee);
  if (ended_ && ended.process == pid) ended_(pid, ended.role, status);
}

void SyscallStepper::TakeStop(pid_t pid, Tracee& tracee, int status) {
  const int signal = WSTOPSIG(status);
  switch (status >> 16) {
    case PTRACE_EVENT_SECCOMP:
      return TakeCall(pid, tracee);
    case PTRACE_EVENT_EXEC:
      return TakeExec(pid, tracee);
    case PTRACE_EVENT_FORK:
    case PTRACE_EVENT_VFORK:
    case PTRACE_EVENT_CLONE: {
      unsigned long child = 0;
      if (ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &child) == 0)
        Adopt(tracee, static_cast<pid_t>(child));
      return Continue(pid);
    }
    case PTRACE_EVENT_STOP:
      // One that was stopped by a signal stays so, until another lets it go on.
      if (signal != SIGTRAP) return (void)ptrace(PTRACE_LISTEN, pid, nullptr, 0);
      return Continue(pid);
    default:
      break;
  }
  if (signal != (SIGTRAP | 0x80)) return Continue(pid, signal);
  if (tracee.killAfter) {
    (void)kill(tracee.process, SIGKILL);
    return;
  }
  if (tracee.failAfter != 0) SetResult(pid, tracee.failAfter);
  tracee.failAfter = 0;
  Continue(pid);
}

void SyscallStepper::TakeExec(pid_t pid, Tracee& tracee) {
  if (pid != first_) tracee.role = RoleOfProgram(ArgumentsOf(pid));
  Continue(pid);
}

void SyscallStepper::Adopt(const Tracee& parent, pid_t child) {
  const pid_t process = ProcessOf(child);
  const bool isProcess = process == child;
  const Role role = isProcess && parent.role == Role::kFront ? Role::kWorker : parent.role;
  tracees_[child] = {role, process};
  if (early_.erase(child) == 1) Continue(child);
}

void SyscallStepper::TakeCall(pid_t pid, Tracee& tracee) {
  __ptrace_syscall_info info = {};
  if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0) return;  // killed meanwhile
  const long call = static_cast<long>(info.seccomp.nr);
  if (call == SYS_setsid) {
    tracee.role = Role::kCalculator;
    return Continue(pid);
  }
  uint64_t arguments[6];
  std::copy(std::begin(info.seccomp.args), std::end(info.seccomp.args), arguments);
  const Step step = StepOf(pid, tracee, call, arguments);
  tracee.last = step.text;
  Perform(pid, tracee, (*decide_)(step), step);
}

Step SyscallStepper::StepOf(pid_t pid, const Tracee& tracee, long call, const uint64_t* arguments) {
  Step step = {};
  step.role = tracee.role;
  step.pid = tracee.process;
  step.call = call;
  std::copy(arguments, arguments + step.arguments.size(), step.arguments.begin());
  step.number = ++steps_[tracee.role];
  step.ofCall = ++stepsOfCall_[{tracee.role, call}];
  step.paths = PathsOf(pid, call, arguments);
  step.text = TextOf(pid, call, arguments, step.paths);
  return step;
}

void SyscallStepper::Perform(pid_t pid, Tracee& tracee, const Action& action, const Step& step) {
  switch (action.kind) {
    case Action::kKillBefore:
      (void)kill(tracee.process, SIGKILL);
      return;
    case Action::kKillAfter:
      tracee.killAfter = true;
      (void)ptrace(PTRACE_SYSCALL, pid, nullptr, 0);  // to where the call returns
      return;
    case Action::kFail:
      MakeFail(pid, action.value);
      break;
    case Action::kFailAfter:
      tracee.failAfter = action.value;
      (void)ptrace(PTRACE_SYSCALL, pid, nullptr, 0);
      return;
    case Action::kShorten:
      Shorten(pid, step, action.value);
      break;
    case Action::kGoOn:
      break;
  }
  Continue(pid);
}

}  // namespace ZorvTest
