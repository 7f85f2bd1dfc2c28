#include "cli/launch_choice.h"

#include <fmt/format.h>

#include "cli/begin_work.h"
#include "cli/failure.h"
#include "cli/standard_streams.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

std::vector<std::string> SharesWithSnapshots() {
  BeginWork();
  std::vector<std::string> shares;
  for (const std::string& share : AllShares()) {
    if (SnapshotsOf(share).empty())
      Say(fmt::format("note: share {} is left out, it has no snapshots", Quoted(share)));
    else
      shares.push_back(share);
  }
  if (shares.empty())
    throw Failure(kNoSnapshots, "no share has snapshots", "make read-only snapshots of one");
  return shares;
}

// A snapshot behind its share is one that --snapshot was forgotten before.
void RequireShares(const std::vector<std::string>& names) {
  BeginWork();
  if (!ShareIsThere(names.front())) return;
  for (const std::string& name : names) {
    if (ShareMayExist(name)) continue;
    for (const Snapshot& snapshot : SnapshotsOf(names.front()))
      if (snapshot.name == name)
        throw Failure(kWrongUsage,
                      fmt::format("{} is a snapshot of share {}, and no share", Quoted(name),
                                  Quoted(names.front())),
                      fmt::format("choose it with --snapshot {}", ShellWord(name)));
  }
}

}  // namespace

std::vector<std::string> SharesToCalculate(const ShareChoice& choice, const Selection& selection) {
  if (!selection.names.empty() && choice.Several())
    throw Failure(kWrongUsage, "snapshots can be named of one share only",
                  "name one share, or leave --snapshot out");
  const std::vector<std::string> shares = ChosenShares(choice, SharesWithSnapshots);
  if (!choice.all && shares.size() > 1) RequireShares(shares);
  return shares;
}

Selection SelectionOf(const std::string& share, Selection selection) {
  selection.share = share;
  return selection;
}

}  // namespace ZorvSnapUsage
