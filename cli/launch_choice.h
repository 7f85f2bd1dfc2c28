// Which shares a command line wants calculated, and which snapshots of each.
#ifndef CLI_LAUNCH_CHOICE_H_
#define CLI_LAUNCH_CHOICE_H_

#include <string>
#include <vector>

#include "cli/launch.h"
#include "cli/share_choice.h"

namespace ZorvSnapUsage {

// What a command line wants calculated. `status` is that of shares which could not be told.
struct SharesChosen {
  std::vector<std::string> shares;
  ExitStatus status = kOk;

  // The exit status of the whole, of which that of the work is `worked`.
  int After(int worked) const { return status == kOk ? worked : status; }
};

// The shares, each once; with --all those that there are and that have snapshots, the others being
// named on standard error. Gives up when snapshots are named of several shares, or of none.
SharesChosen SharesToCalculate(const ShareChoice& choice, const Selection& selection);

// The selection for one of them.
Selection SelectionOf(const std::string& share, Selection selection);

}  // namespace ZorvSnapUsage

#endif  // CLI_LAUNCH_CHOICE_H_
