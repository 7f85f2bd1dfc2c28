#include "cli/engine.h"

#include <fmt/format.h>
#include <zorvplatform/platc.h>

#include <chrono>
#include <string>

#include "cli/failure.h"
#include "cli/patience.h"
#include "cli/program_run.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kCommand[] = "/sbin/btrfs";
constexpr char kAnswer[] = "zorv btrfs engine";
constexpr char kNext[] = "install zorv-btrfs-command, or the engine as /sbin/btrfs";
constexpr size_t kMostText = 256;
constexpr std::chrono::seconds kTimeToAnswer{30};

[[noreturn]] void Refuse(const char* why) {
  throw Failure(kNotAnEngine, fmt::format("{} {}", kCommand, why), kNext);
}

// What the command prints about its version; any other btrfs complains about a command that it does
// not know.
std::string VersionText() {
  Patience patience("asking /sbin/btrfs for its version");
  const auto end = std::chrono::steady_clock::now() + kTimeToAnswer;
  return RunProgram({kCommand, "subvolume", "size", "--version"},
                    {kMostText, [](const std::string&) {},
                     [&] {
                       patience.Tick();
                       if (std::chrono::steady_clock::now() > end) Refuse("does not answer");
                     }})
      .output;
}

}  // namespace

void RequireEngine() {
  if (PLATCFileExist(kCommand) != 1)
    throw Failure(kCommandMissing, fmt::format("{} is missing", kCommand), kNext);
  if (VersionText().rfind(kAnswer, 0) != 0)
    Refuse("is not an engine that calculates exclusive sizes");
}

}  // namespace ZorvSnapUsage
