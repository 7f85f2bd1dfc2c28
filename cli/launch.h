// Which snapshots a calculation is to measure, and its start.
#ifndef CLI_LAUNCH_H_
#define CLI_LAUNCH_H_

#include <optional>
#include <string>
#include <vector>

#include "cli/share.h"

namespace ZorvSnapUsage {

// What the command line says. Without names and times: all snapshots of the share.
struct Selection {
  std::string share;
  std::vector<std::string> names;  // of snapshots; not together with times
  std::string since;               // time texts; empty: no such end
  std::string until;
};

// A calculation that has been started.
struct Launched {
  std::string taskID;
  std::vector<Snapshot> asked;                     // and calculated
  std::vector<Snapshot> leftOut;                   // asked for, not by name, and cannot be recorded
  std::optional<unsigned long long> beingDeleted;  // other subvolumes; nothing: it is not known
};

// Waits for a share whose volume may still be about to be mounted, for up to a minute, and says so.
// What became of it is seen by whoever looks the share up next.
void AwaitShare(const std::string& share);

// Starts a calculation in the background; its process keeps the caller's standard error. Says when
// deletions under way make its numbers smaller. Gives up when anything is in its way.
Launched Launch(const Selection& selection);

}  // namespace ZorvSnapUsage

#endif  // CLI_LAUNCH_H_
