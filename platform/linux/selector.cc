// Selectors: the chain of conditions, and the condition on a snapshot's time.
#include "platform/linux/selector.h"

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/snap_name.h"

struct _tag_ZORVSHARESNAPSELECTOR {
  std::vector<std::pair<ZORVSHARESNAPSELECTFN, std::string>> conditions;
};

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/selector";

// Which orders of a snapshot's time and the given time an operator selects.
struct Operator {
  const char* text;
  bool earlier;
  bool same;
  bool later;
};

// Longer texts first: ">" is the beginning of ">=".
constexpr Operator kOperators[] = {
    {">=", false, true, true}, {"<=", true, true, false}, {">", false, false, true},
    {"<", true, false, false}, {"=", false, true, false},
};

struct TimeCondition {
  const Operator* op;
  SnapName name;
};

// False: the argument is not an operator and a name that carries a time.
bool ParseArgument(const char* argument, TimeCondition* condition) {
  for (const Operator& op : kOperators) {
    const size_t length = strlen(op.text);
    if (strncmp(argument, op.text, length) != 0) continue;
    condition->op = &op;
    return ReadSnapName(argument + length, &condition->name);
  }
  return false;
}

bool Holds(const TimeCondition& condition, time_t time) {
  if (time < condition.name.time) return condition.op->earlier;
  if (time > condition.name.time) return condition.op->later;
  return condition.op->same;
}

}  // namespace

namespace ZorvPlatform {

int PassesAll(const ZORVSHARESNAPSELECTOR* selectors, const char* snapName) {
  if (selectors == nullptr) return 1;
  int verdict = 1;
  // All of them are asked, also behind one that does not hold: a condition that makes no sense is
  // an error whatever the others say.
  for (const auto& [fn, argument] : selectors->conditions) {
    const int selected = fn(snapName, argument.c_str());
    if (selected < 0) return selected;
    if (selected == 0) verdict = 0;
  }
  return verdict;
}

}  // namespace ZorvPlatform

int ZORVShareSnapTimeSelector(const char* snapName, const char* argument) {
  if (snapName == nullptr || argument == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  TimeCondition condition;
  if (!ParseArgument(argument, &condition)) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  SnapName name;
  if (!ReadSnapName(snapName, &name)) return 0;
  return Holds(condition, name.time) ? 1 : 0;
}

int ZORVShareSnapSelectorAdd(ZORVSHARESNAPSELECTOR** selectors, ZORVSHARESNAPSELECTFN fn,
                             const char* argument) {
  if (selectors == nullptr || fn == nullptr || argument == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  // Looked at here, because a share without snapshots would never show that it makes no sense.
  TimeCondition condition;
  if (fn == ZORVShareSnapTimeSelector && !ParseArgument(argument, &condition)) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] {
    std::pair<ZORVSHARESNAPSELECTFN, std::string> added(fn, argument);
    std::unique_ptr<ZORVSHARESNAPSELECTOR> fresh;
    if (*selectors == nullptr) fresh = std::make_unique<ZORVSHARESNAPSELECTOR>();
    ZORVSHARESNAPSELECTOR* chain = fresh != nullptr ? fresh.get() : *selectors;
    chain->conditions.push_back(std::move(added));
    *selectors = chain;
    (void)fresh.release();
    return 0;
  });
}

void ZORVShareSnapEnumFree(ZORVSHARESNAPSELECTOR* selectors) { delete selectors; }
