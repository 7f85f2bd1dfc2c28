#include "cli/engine.h"

#include <fmt/format.h>
#include <zorvplatform/platc.h>

#include <chrono>
#include <string>

#include "cli/engine_places.h"
#include "cli/failure.h"
#include "cli/patience.h"
#include "cli/program_run.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kAnswer[] = "zorv btrfs engine";
constexpr size_t kMostText = 256;
constexpr std::chrono::seconds kTimeToAnswer{30};

[[noreturn]] void Refuse(ExitStatus status, const char* place, const char* why) {
  throw Failure(status, fmt::format("{} {}", place, why), HowToGetEngine(place));
}

// What the command prints about its version; any other btrfs complains about a command that it does
// not know.
std::string VersionText(const char* place) {
  Patience patience(fmt::format("asking {} for its version", place));
  const auto end = std::chrono::steady_clock::now() + kTimeToAnswer;
  return RunProgram({place, "subvolume", "size", "--version"},
                    {kMostText, [](const std::string&) {},
                     [&] {
                       patience.Tick();
                       if (std::chrono::steady_clock::now() > end)
                         Refuse(kNotAnEngine, place, "does not answer");
                     }})
      .output;
}

void RequireEngineAt(const char* place) {
  if (PLATCFileExist(place) != 1) Refuse(kCommandMissing, place, "is missing");
  if (VersionText(place).rfind(kAnswer, 0) != 0)
    Refuse(kNotAnEngine, place, "is not an engine that calculates exclusive sizes");
}

// Whether the failure says of a place that no engine is there: not a signal, nor lack of memory.
bool SaysNoEngine(const Failure& failure) {
  return failure.Status() == kCommandMissing || failure.Status() == kNotAnEngine;
}

}  // namespace

void RequireEngine() { RequireEngineAt(kBtrfsProgram); }

const char* FindEngine() {
  try {
    RequireEngineAt(kBtrfsProgram);
    return kBtrfsProgram;
  } catch (const Failure& failure) {
    if (!SaysNoEngine(failure) || PLATCFileExist(kOwnEngine) != 1) throw;
  }
  RequireEngineAt(kOwnEngine);
  return kOwnEngine;
}

}  // namespace ZorvSnapUsage
