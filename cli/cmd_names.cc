// zorv-snapusage names: the names of shares or snapshots, for scripts and for completion.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/begin_work.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/share.h"
#include "cli/standard_streams.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

struct NamesOptions {
  std::string share;  // empty: of all shares
  bool zero = false;
};

void Print(const std::vector<std::string>& names, bool zero) {
  for (const std::string& name : names) ToStandardOutput(zero ? name + '\0' : Escaped(name) + "\n");
}

std::vector<std::string> SnapshotNames(const std::string& share) {
  BeginWorkOn(share);
  RequireShare(share);
  std::vector<std::string> names;
  for (const Snapshot& snapshot : SnapshotsOf(share)) names.push_back(snapshot.name);
  // An empty list looks the same whether there are none or the share's format fits none.
  if (names.empty())
    Say(fmt::format("note: share {} has no snapshots; {}", Quoted(share),
                    NextWithoutSnapshots(share)));
  return names;
}

int Names(const NamesOptions& options) {
  if (!options.share.empty()) {
    Print(SnapshotNames(options.share), options.zero);
    return kOk;
  }
  BeginWork();
  const ShareNames shares = AllShares();
  Print(shares.names, options.zero);
  return shares.status;
}

}  // namespace

void AddNames(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("names", "Print the names of all shares, or of a share's snapshots");
  const auto options = std::make_shared<NamesOptions>();
  command->add_option("SHARE", options->share, "Name of the share (default: names of shares)")
      ->type_name("");
  command->add_flag("-0,--null", options->zero, "Names as they are, with a NUL behind each");
  command->footer(
      "For scripts and completion; shares by name, snapshots by time.\n"
      "Example: zorv-snapusage names photos -0 | xargs -0 -n 1 echo");
  command->callback([options, &action] { action = [options] { return Names(*options); }; });
}

}  // namespace ZorvSnapUsage
