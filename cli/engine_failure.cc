#include "cli/engine_failure.h"

#include <fmt/format.h>

#include <sstream>

#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

// What a reason says, somewhere outside of paths, and what helps then, with the directory at its
// end where the command wants one. The first row that fits counts.
struct Row {
  const char* says;
  const char* next;
  ExitStatus status = kCalculationFailed;
  bool wantsDirectory = false;
};

// What the engine itself advises about a deletion: without a directory, for it knows none.
constexpr char kAdviceToWait[] = "; wait with btrfs subvolume sync";

constexpr Row kRows[] = {
    {"this needs root", "run it with sudo", kNotRoot},
    {"is being deleted", "wait for that with: btrfs subvolume sync", kCalculationFailed, true},
    {"was deleted meanwhile", "a snapshot has gone since; try again"},
    {"there is no subvolume", "a snapshot has gone since; try again"},
    {"cannot open : No such file or directory", "it has gone since; try again"},
    {"is missing", "attach the device, or replace it with: btrfs replace"},
    {"cannot be used (", "attach the device, or replace it: btrfs replace"},
    {"zoned", "this kind of file system cannot be read yet"},
    {"extent-tree-v2", "this kind of file system cannot be read yet"},
    {"does not know", "a newer engine may be able to read this file system"},
    {"checksum type", "a newer engine may be able to read this file system"},
    {"balance", "try again when it is over: btrfs balance status"},
    {"changes faster", "try again when the file system is quieter"},
    {"cannot be used:", "look for damage with: btrfs scrub start"},
    {"damaged", "look for damage with: btrfs scrub start"},
    {"there is no room", "make room there"},
    {"out of memory", "try again when there is more"},
};

std::string WithoutAdvice(std::string reason) {
  const size_t at = reason.find(kAdviceToWait);
  if (at != std::string::npos) reason.erase(at, sizeof kAdviceToWait - 1);
  return reason;
}

// Without the directory, and without what else looks like a path: both hold any words.
std::string WithoutPaths(std::string reason, const std::string& directory) {
  const size_t at = directory.empty() ? std::string::npos : reason.find(directory);
  if (at != std::string::npos) reason.erase(at, directory.size());
  std::istringstream words(reason);
  std::string others;
  for (std::string word; words >> word;)
    if (word[0] != '/') others += word + " ";
  return others;
}

std::string NextOf(const Row& row, const std::string& directory) {
  return row.wantsDirectory ? fmt::format("{} {}", row.next, ShellWord(directory)) : row.next;
}

}  // namespace

Failure EngineFailure(const std::string& what, const std::string& reason, const char* place,
                      const std::string& directory) {
  const std::string failed = fmt::format("{} failed: {}", what, Escaped(WithoutAdvice(reason)));
  const std::string said = WithoutPaths(reason, directory);
  for (const Row& row : kRows)
    if (said.find(row.says) != std::string::npos)
      return Failure(row.status, failed, NextOf(row, directory));
  return Failure(kCalculationFailed, failed,
                 fmt::format("see what is in the way with: {} subvolume size --check -r {}", place,
                             ShellWord(directory)));
}

}  // namespace ZorvSnapUsage
