// Which shares a command line wants calculated, and which snapshots of each.
#ifndef CLI_LAUNCH_CHOICE_H_
#define CLI_LAUNCH_CHOICE_H_

#include <string>
#include <vector>

#include "cli/launch.h"
#include "cli/share_choice.h"

namespace ZorvSnapUsage {

// The shares, each once; with --all those that there are and that have snapshots, the others being
// named on standard error. Gives up when snapshots are named of several shares, or of none.
std::vector<std::string> SharesToCalculate(const ShareChoice& choice, const Selection& selection);

// The selection for one of them.
Selection SelectionOf(const std::string& share, Selection selection);

}  // namespace ZorvSnapUsage

#endif  // CLI_LAUNCH_CHOICE_H_
