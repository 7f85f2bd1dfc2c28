// The snapshots of a share where its source keeps them.
#ifndef PLATFORM_LINUX_SNAP_SOURCE_H
#define PLATFORM_LINUX_SNAP_SOURCE_H

#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/share.h"
#include "platform/linux/snap_name.h"

namespace ZorvPlatform {

struct Snapshot {
  std::string name;    // what the library calls it
  std::string target;  // its path; for shares with a view
  bool timed = false;  // the name carries a time
  SnapName read;       // what the name tells
};

// Opens the directory that holds the share's snapshots.  1; 0: it has none; -1 with the error
// record set: a share that is itself gone is no share without snapshots, neither is one whose
// directory others could have put there.
int OpenSnapDir(const Share& share, UniqueFd* directory);

// How many subvolumes of the directory do not fit the share's format.  -1 with the error record set.
int CountUnfit(const Share& share);

// Adds all snapshots, in no order.  0, or -1 with the error record set.
int ReadSnapshots(const Share& share, std::vector<Snapshot>* snapshots);

}  // namespace ZorvPlatform

#endif
