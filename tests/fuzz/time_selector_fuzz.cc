// Time selectors: the first line is the argument, without its operator; the rest a snapshot's name.
#include "tests/fuzz/target.h"
#include "zorvplatform/share.h"

using namespace ZorvTest;

namespace {

// Whether the platform takes the selector into a chain.
bool CanBeAdded(const std::string& argument) {
  ZORVSHARESNAPSELECTOR* chain = nullptr;
  const bool added =
      ZORVShareSnapSelectorAdd(&chain, ZORVShareSnapTimeSelector, argument.c_str()) >= 0;
  FUZZ_LAW(added == (chain != nullptr));
  ZORVShareSnapEnumFree(chain);
  return added;
}

}  // namespace

FUZZ_TARGET(time_selector) {
  FuzzInput parts(input);
  const std::string time(parts.Line());
  const std::string name(parts.Rest());
  const auto select = [&](const char* op) {
    return ZORVShareSnapTimeSelector(name.c_str(), (op + time).c_str());
  };
  (void)select("");
  time_t given = 0;
  time_t own = 0;
  const bool makesSense = ZORVShareSnapTimeGet(time.c_str(), &given) >= 0;
  const bool hasTime = ZORVShareSnapTimeGet(name.c_str(), &own) >= 0;
  if (!makesSense) {
    // "=" before it may make another operator of "<" or ">".
    if (time.empty() || time[0] != '=') FUZZ_LAW(select("<") < 0 && select(">") < 0);
    FUZZ_LAW(select("=") < 0);
    FUZZ_LAW(!CanBeAdded("=" + time));
    return;
  }
  FUZZ_LAW(CanBeAdded(">=" + time));
  FUZZ_LAW(select("<") == (hasTime && own < given ? 1 : 0));
  FUZZ_LAW(select(">") == (hasTime && own > given ? 1 : 0));
  FUZZ_LAW(select("=") == (hasTime && own == given ? 1 : 0));
  FUZZ_LAW(select("<=") == (hasTime && own <= given ? 1 : 0));
  FUZZ_LAW(select(">=") == (hasTime && own >= given ? 1 : 0));
}
