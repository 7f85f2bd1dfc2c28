#include "cli/launch_choice.h"

#include <fmt/format.h>

#include "cli/begin_work.h"
#include "cli/failure.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

// Whether it has none for certain: what else is wrong with a share, its own calculation says.
bool HasNoSnapshots(const std::string& share) {
  try {
    return SnapshotsOf(share).empty();
  } catch (const Failure&) {
    return false;
  }
}

SharesChosen SharesWithSnapshots() {
  BeginWork();
  const ShareNames all = AllShares();
  SharesChosen chosen = {{}, all.status};
  for (const std::string& share : all.names) {
    if (HasNoSnapshots(share))
      Say(fmt::format("note: share {} is left out, it has no snapshots; {}", Quoted(share),
                      NextWithoutSnapshots(share)));
    else
      chosen.shares.push_back(share);
  }
  if (chosen.shares.empty())
    throw Failure(kNoSnapshots, "no share has snapshots", "make read-only snapshots of one");
  return chosen;
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
                      "choose it with " + OptionWords("--snapshot", name));
  }
}

}  // namespace

SharesChosen SharesToCalculate(const ShareChoice& choice, const Selection& selection) {
  if (!selection.names.empty() && choice.Several())
    throw Failure(kWrongUsage, "snapshots can be named of one share only",
                  "name one share, or leave --snapshot out");
  if (choice.all) return SharesWithSnapshots();
  const std::vector<std::string> shares = ChosenShares(choice, nullptr);
  if (shares.size() > 1) RequireShares(shares);
  return {shares};
}

Selection SelectionOf(const std::string& share, Selection selection) {
  selection.share = share;
  return selection;
}

}  // namespace ZorvSnapUsage
