// Runs a program, and all that comes of it, up to each of its system calls of a chosen list, where
// a test says what becomes of the process or of the call.
#ifndef TESTS_SUPPORT_SYSCALL_STEPPER_H_
#define TESTS_SUPPORT_SYSCALL_STEPPER_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <array>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace ZorvTest {

// What a process of a calculation is.
enum class Role {
  kCaller,      // the process that was run, and what it forks
  kCalculator,  // a process that has begun a session of its own, and what it forks
  kFront,       // /sbin/btrfs, unless it is asked for its version
  kWorker,      // what a front forks
  kOther,       // any other program: uuidgen, the engine that tells its version
};

// "caller", ...
const char* NameOf(Role role);

// A system call at which processes are stopped.
struct WatchedCall {
  long call;                 // its number, as in <sys/syscall.h>
  bool onlyToWrite = false;  // open and openat: only when they could change or make a file
};

// Those by which files are made, written, renamed, removed, synced, or get another owner or mode.
// A write into a pipe counts; sending to a socket does not.
std::vector<WatchedCall> FileChangingCalls();

// A call that a process is about to make.
struct Step {
  Role role;
  pid_t pid;  // of the process, also when one of its threads makes the call
  long call;
  std::array<uint64_t, 6> arguments;
  size_t number;                   // among the steps of its role, from 1
  size_t ofCall;                   // among those with this call, from 1
  std::vector<std::string> paths;  // the paths among the arguments, as they are given
  std::string text;                // "rename(/a, /b)", "write(/a, 12)"
};

// What becomes of it.
struct Action {
  enum Kind { kGoOn, kKillBefore, kKillAfter, kFail, kFailAfter, kShorten };

  Kind kind = kGoOn;
  uint64_t value = 0;

  static Action GoOn() { return {}; }

  // The process is killed with SIGKILL, and the call was not made; or it was.
  static Action KillBefore() { return {kKillBefore, 0}; }
  static Action KillAfter() { return {kKillAfter, 0}; }

  // The call is not made, and seems to fail so (EIO, EINTR, ...).
  static Action Fail(int error) { return {kFail, static_cast<uint64_t>(error)}; }

  // The call is made, and seems to have failed so: what close does to a descriptor.
  static Action FailAfter(int error) { return {kFailAfter, static_cast<uint64_t>(error)}; }

  // The call is made with a smaller length (writev, readv: number of pieces); one that has none, or
  // a smaller one, goes on as it is.
  static Action Shorten(uint64_t length) { return {kShorten, length}; }
};

// The body of a process that becomes a program; its output goes to the file `output`, if any.
std::function<int()> Program(std::vector<std::string> argv, std::string output = "");

// Everything else of the processes runs at full speed. They see nothing of it, but that their
// parent by ptrace(2) is the caller. Calls stop in no particular order when several processes make
// them at once. The caller must have no other children meanwhile, and becomes the subreaper of the
// tree.
class SyscallStepper {
 public:
  using Decide = std::function<Action(const Step&)>;

  // `status` as from waitpid(2). The process holds nothing any more.
  using Ended = std::function<void(pid_t pid, Role role, int status)>;

  explicit SyscallStepper(std::vector<WatchedCall> calls = FileChangingCalls());

  // Is told of the end of each process.
  void OnEnd(Ended ended) { ended_ = std::move(ended); }

  // Runs `body` in a new process and asks `decide` at each step, until the last process of the
  // tree has ended. The exit status of the first one (128 + signal when it was killed). Throws when
  // some are still there after `seconds`; they are killed, and named in the text.
  int Run(const std::function<int()>& body, const Decide& decide, double seconds = 60);

 private:
  struct Tracee {
    Role role;
    pid_t process;
    bool killAfter = false;
    uint64_t failAfter = 0;
    std::string last = {};  // its last step
  };

  void Begin(const std::function<int()>& body);
  void FollowAll(double end);
  bool WaitForSignal(double end) const;
  void Take(pid_t pid, int status);
  void TakeEnd(pid_t pid, int status);
  void TakeStop(pid_t pid, Tracee& tracee, int status);
  void TakeCall(pid_t pid, Tracee& tracee);
  void TakeExec(pid_t pid, Tracee& tracee);
  void Adopt(const Tracee& parent, pid_t child);
  void Perform(pid_t pid, Tracee& tracee, const Action& action, const Step& step);
  Step StepOf(pid_t pid, const Tracee& tracee, long call, const uint64_t* arguments);
  [[noreturn]] void GiveUp();

  const std::vector<WatchedCall> calls_;
  Ended ended_;
  const Decide* decide_ = nullptr;
  pid_t first_ = -1;
  int firstStatus_ = 0;
  std::map<pid_t, Tracee> tracees_;  // by thread
  std::set<pid_t> early_;            // stopped before their parent told of them
  std::map<Role, size_t> steps_;
  std::map<std::pair<Role, long>, size_t> stepsOfCall_;
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_SYSCALL_STEPPER_H_
