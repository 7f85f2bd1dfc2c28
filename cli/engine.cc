#include "cli/engine.h"

#include <errno.h>
#include <fmt/format.h>
#include <string.h>
#include <zorvplatform/platc.h>

#include <string>

#include "cli/failure.h"
#include "cli/silent_stderr.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kCommand[] = "/sbin/btrfs";
constexpr char kAnswer[] = "zorv btrfs engine";
constexpr char kNext[] = "install zorv-btrfs-command, or the engine as /sbin/btrfs";

// The first line of what the command prints about its version.
std::string VersionLine() {
  // Any other btrfs complains there about a command that it does not know.
  const SilentStderr silent;
  char program[] = "/sbin/btrfs", subvolume[] = "subvolume", size[] = "size",
       version[] = "--version";
  char* const argv[] = {program, subvolume, size, version, nullptr};
  FILE* const stream = PLATCPopenv(kCommand, "r", argv);
  if (stream == nullptr)
    throw Failure(kNotAnEngine, fmt::format("{} cannot be started ({})", kCommand, strerror(errno)),
                  kNext);
  char line[256] = "";
  if (fgets(line, sizeof line, stream) == nullptr) line[0] = '\0';
  (void)PLATCPclose(stream);
  return line;
}

}  // namespace

void RequireEngine() {
  if (PLATCFileExist(kCommand) != 1)
    throw Failure(kCommandMissing, fmt::format("{} is missing", kCommand), kNext);
  if (VersionLine().rfind(kAnswer, 0) != 0)
    throw Failure(kNotAnEngine,
                  fmt::format("{} is not an engine that calculates exclusive sizes", kCommand),
                  kNext);
}

}  // namespace ZorvSnapUsage
