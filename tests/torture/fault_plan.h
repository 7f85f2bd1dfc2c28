// Which system calls of a program can be made to fail, how, and in which order to try that.
#ifndef TESTS_TORTURE_FAULT_PLAN_H_
#define TESTS_TORTURE_FAULT_PLAN_H_

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/syscall_stepper.h"

namespace ZorvTest {

// One call that fails, or all from it on.
struct Fault {
  Step step;  // as the run without faults had it
  Action action;
  bool lasting = false;  // all calls of its kind and role from this one on
  bool always = false;   // tried however short the time, so that each call of each role is

  // "calculator write #3 (write(/run/..., 12)): EIO"
  std::string Name() const;

  // "EIO", "short".
  std::string What() const;
};

// What a run with a fault was like.
struct FaultyRun {
  int status = -1;               // of the first process
  std::vector<Step> hit;         // the calls that failed; none: this run had not so many
  std::vector<int> calculators;  // wait statuses of the processes that were calculators
  std::string crashed;           // processes that a signal ended, in words
};

// What can happen to a call of this step.
using ActionsOf = std::function<std::vector<Action>(const Step&)>;

// Everything that the kernel may answer to it, as far as programs can see it.
std::vector<Action> AllActions(const Step& step);

// What a full disk, a full table or no memory answers to it: those that last.
std::vector<Action> LastingActions(const Step& step);

// Whether a fault at this step is of interest.
using IsWanted = std::function<bool(const Step&)>;

// Runs `body` without faults and gives the faults of its steps, those first that no earlier one is
// like: another role, call, kind of file or answer. The seed (ZORV_TORTURE_SEED; 0 without it) says
// where among these to begin, for there may not be time for all.
std::vector<Fault> PlanFaults(const std::function<int()>& body, const IsWanted& wanted,
                              const ActionsOf& actions, bool lasting = false);

FaultyRun RunWithFault(const std::function<int()>& body, const Fault& fault);

// "openat", "write"; what the text of the step begins with.
std::string NameOfCall(const Step& step);

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_FAULT_PLAN_H_
