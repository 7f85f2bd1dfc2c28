#include "tests/torture/fault_plan.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <utility>

#include "tests/support/torture.h"

namespace ZorvTest {
namespace {

// What the kernel can answer to a call, and which of it lasts for a while.
struct CallFaults {
  long call;
  std::vector<int> errors;
  std::vector<int> lasting = {};
  bool shortens = false;
  bool afterwards = false;  // the call is made all the same
};

const CallFaults kCallFaults[] = {
    {SYS_openat, {EIO, ENOSPC, EMFILE, ENOMEM, EINTR}, {EMFILE, ENOMEM, ENOSPC}},
    {SYS_read, {EIO, EINTR}, {EIO}, true},
    {SYS_pread64, {EIO, EINTR}, {EIO}, true},
    {SYS_readv, {EIO, EINTR}},
    {SYS_write, {EIO, ENOSPC, EINTR}, {ENOSPC, EIO}, true},
    {SYS_writev, {EIO, ENOSPC, EINTR}, {ENOSPC}},
    {SYS_pwrite64, {EIO, ENOSPC, EINTR}, {ENOSPC}, true},
    {SYS_rename, {EIO, ENOSPC}, {ENOSPC}},
    {SYS_unlink, {EIO, EBUSY}, {EIO}},
    {SYS_unlinkat, {EIO}},
    {SYS_rmdir, {EIO, EBUSY}},
    {SYS_mkdir, {EIO, ENOSPC, ENOMEM}, {ENOSPC}},
    {SYS_fcntl, {EINTR, ENOLCK, EAGAIN, EACCES}, {ENOLCK, EINTR}},
    {SYS_clone, {EAGAIN, ENOMEM}, {EAGAIN}},
    {SYS_clone3, {EAGAIN, ENOMEM}, {EAGAIN}},
    {SYS_vfork, {EAGAIN}, {EAGAIN}},
    {SYS_execve, {ENOMEM, EIO}, {ENOMEM}},
    {SYS_pipe2, {EMFILE, ENFILE}, {EMFILE}},
    {SYS_dup2, {EBUSY, EINTR}},
    {SYS_dup3, {EBUSY, EINTR}},
    {SYS_mmap, {ENOMEM}, {ENOMEM}},
    {SYS_mprotect, {ENOMEM}},
    {SYS_ioctl, {EIO, EINTR, ENOMEM}, {EIO}},
    {SYS_fsync, {EIO, ENOSPC}, {EIO}},
    {SYS_fdatasync, {EIO, ENOSPC}},
    {SYS_sync_file_range, {EIO, ENOSPC}, {EIO}},
    {SYS_fallocate, {ENOSPC, EINTR}},
    {SYS_ftruncate, {EIO}},
    {SYS_close, {EIO, EINTR}, {EIO}, false, true},
    {SYS_fstat, {EIO, ENOMEM}},
    {SYS_newfstatat, {EIO, ENOMEM}, {ENOMEM}},
    {SYS_statx, {EIO, ENOMEM}},
    {SYS_statfs, {EIO}},
    {SYS_fstatfs, {EIO}},
    {SYS_readlink, {EIO, ENOMEM}},
    {SYS_getdents64, {EIO, EINTR}, {EIO}},
    {SYS_chmod, {EPERM, EIO}},
    {SYS_chown, {EPERM, EIO}},
    {SYS_fchmod, {EPERM, EIO}},
    {SYS_fchown, {EPERM, EIO}},
    {SYS_wait4, {EINTR}},
    {SYS_pidfd_open, {EMFILE, ENFILE, ENOMEM}, {EMFILE}},
    {SYS_pidfd_send_signal, {EPERM, ESRCH}},
    {SYS_poll, {EINTR, ENOMEM}},
    {SYS_io_uring_setup, {ENOMEM, EMFILE}},
    {SYS_io_uring_enter, {EINTR, EAGAIN, ENOMEM}, {EAGAIN}},
};

const CallFaults* FaultsOf(long call) {
  for (const CallFaults& row : kCallFaults)
    if (row.call == call) return &row;
  return nullptr;
}

std::vector<WatchedCall> AllCalls() {
  std::vector<WatchedCall> calls;
  for (const CallFaults& row : kCallFaults) calls.push_back({row.call});
  return calls;
}

// The looks at descriptors of the harness itself.
bool IsOurOwn(const Step& step) { return step.call == SYS_fcntl && step.arguments[1] == F_GETFD; }

std::vector<Action> Failures(const CallFaults& row, const std::vector<int>& errors) {
  std::vector<Action> actions;
  for (const int error : errors)
    actions.push_back(row.afterwards ? Action::FailAfter(error) : Action::Fail(error));
  return actions;
}

// Steps that are alike in everything but IDs, numbers and random names.
std::string KindOf(const Step& step) {
  static const std::regex kChanging(R"([0-9a-f]{8}-[0-9a-f-]{27}|\.[A-Za-z0-9]{6}(?=[,)])|[0-9]+)");
  return std::string(NameOf(step.role)) + std::regex_replace(step.text, kChanging, "#");
}

// Calls that carry content: these come twice as often as the others.
bool IsOfContent(const Fault& fault) {
  switch (fault.step.call) {
    case SYS_read:
    case SYS_pread64:
    case SYS_write:
    case SYS_rename:
    case SYS_getdents64:
    case SYS_io_uring_enter:
      return true;
    default:
      return false;
  }
}

// Each list keeps its order.
std::vector<Fault> TwoOfOneAndOneOfTheOther(const std::vector<Fault>& two,
                                            const std::vector<Fault>& one) {
  std::vector<Fault> merged;
  size_t fromTwo = 0, fromOne = 0;
  while (fromTwo < two.size() || fromOne < one.size()) {
    for (int i = 0; i < 2 && fromTwo < two.size(); ++i) merged.push_back(two[fromTwo++]);
    if (fromOne < one.size()) merged.push_back(one[fromOne++]);
  }
  return merged;
}

// The order of SpreadOrder, begun elsewhere.
std::vector<size_t> SpreadFrom(size_t seed, size_t count) {
  std::vector<size_t> order = SpreadOrder(count);
  for (size_t& place : order) place = (place + seed) % count;
  return order;
}

// The first of each kind, then the second of each, and so on; in every such round spread, so that
// each beginning of the list has seen much. The seed chooses which come first.
std::vector<Fault> InOrder(const std::vector<Fault>& faults, size_t seed) {
  std::map<std::string, std::vector<size_t>> alike;
  for (size_t i = 0; i < faults.size(); ++i)
    alike[KindOf(faults[i].step) + faults[i].What()].push_back(i);
  std::vector<std::vector<size_t>> rounds;
  for (const auto& [kind, members] : alike) {
    const std::vector<size_t> order = SpreadFrom(seed, members.size());
    for (size_t round = 0; round < order.size(); ++round) {
      if (rounds.size() <= round) rounds.emplace_back();
      rounds[round].push_back(members[order[round]]);
    }
  }
  std::vector<Fault> content, others;
  for (const std::vector<size_t>& round : rounds) {
    for (const size_t place : SpreadFrom(seed, round.size())) {
      const Fault& fault = faults[round[place]];
      (IsOfContent(fault) ? content : others).push_back(fault);
    }
  }
  return TwoOfOneAndOneOfTheOther(content, others);
}

// Marks the first fault of each call of each role; of what processes hear from one another (pipes)
// the first with each answer.
void MarkThoseOfAnyTime(std::vector<Fault>* faults) {
  std::set<std::string> seen;
  for (Fault& fault : *faults) {
    const Step& step = fault.step;
    std::string group = NameOf(step.role) + NameOfCall(step);
    if (step.call == SYS_read && step.text.find("pipe:") != std::string::npos)
      group += " of " + std::to_string(step.arguments[2]) + " from a pipe: " + fault.What();
    fault.always = seen.insert(group).second;
  }
}

size_t Seed() {
  const char* const told = getenv("ZORV_TORTURE_SEED");
  return told == nullptr ? 0 : strtoul(told, nullptr, 10);
}

}  // namespace

std::string Fault::What() const {
  return action.kind == Action::kShorten ? "short"
                                         : strerrorname_np(static_cast<int>(action.value));
}

std::string Fault::Name() const {
  return std::string(NameOf(step.role)) + " " + NameOfCall(step) + " #" +
         std::to_string(step.ofCall) + (lasting ? " and later" : "") + " (" + step.text +
         "): " + What();
}

std::string NameOfCall(const Step& step) { return step.text.substr(0, step.text.find('(')); }

std::vector<Action> AllActions(const Step& step) {
  const CallFaults* const row = FaultsOf(step.call);
  if (row == nullptr) return {};
  std::vector<Action> actions = Failures(*row, row->errors);
  // What is written to a pipe in one piece is read so.
  const bool isWhole = step.text.find("pipe:") != std::string::npos &&
                       step.arguments[2] <= (step.call == SYS_write ? PIPE_BUF : 16);
  // Devices are read by sectors.
  const uint64_t length = step.call == SYS_pread64 ? 512 : 1;
  if (row->shortens && step.arguments[2] > length && !isWhole)
    actions.push_back(Action::Shorten(length));
  return actions;
}

std::vector<Action> LastingActions(const Step& step) {
  const CallFaults* const row = FaultsOf(step.call);
  return row == nullptr ? std::vector<Action>() : Failures(*row, row->lasting);
}

std::vector<Fault> PlanFaults(const std::function<int()>& body, const IsWanted& wanted,
                              const ActionsOf& actions, bool lasting) {
  std::vector<Fault> faults;
  SyscallStepper(AllCalls()).Run(body, [&](const Step& step) {
    if (!IsOurOwn(step) && wanted(step))
      for (const Action& action : actions(step)) faults.push_back({step, action, lasting});
    return Action::GoOn();
  });
  MarkThoseOfAnyTime(&faults);
  return InOrder(faults, Seed());
}

FaultyRun RunWithFault(const std::function<int()>& body, const Fault& fault) {
  FaultyRun run;
  SyscallStepper stepper(std::vector<WatchedCall>{{fault.step.call}});
  stepper.OnEnd([&run](pid_t, Role role, int status) {
    if (role == Role::kCalculator) run.calculators.push_back(status);
    if (WIFSIGNALED(status))
      run.crashed += std::string(NameOf(role)) + " by " + strsignal(WTERMSIG(status)) + "; ";
  });
  run.status = stepper.Run(body, [&](const Step& step) {
    const bool isIt =
        step.role == fault.step.role && !IsOurOwn(step) &&
        (fault.lasting ? step.ofCall >= fault.step.ofCall : step.ofCall == fault.step.ofCall);
    if (!isIt) return Action::GoOn();
    run.hit.push_back(step);
    return fault.action;
  });
  return run;
}

}  // namespace ZorvTest
