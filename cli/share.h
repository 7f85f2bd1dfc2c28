// Shares and their snapshots as they are now.
#ifndef CLI_SHARE_H_
#define CLI_SHARE_H_

#include <time.h>

#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"

namespace ZorvSnapUsage {

// One snapshot of a share.
struct Snapshot {
  std::string name;
  std::string path;
  unsigned long long subvolumeID;
  std::optional<time_t> time;     // when the name carries one
  std::optional<time_t> created;  // as its file system says
};

// The failure of the platform's last call, in its own words where it has some.
Failure PlatformFailure(const std::string& what);

// Gives up because there is no such share.
[[noreturn]] void RefuseUnknownShare(const std::string& share);

// Gives up unless the share exists and can be reached.
void RequireShare(const std::string& share);

// Where a share lies, and who says that there is one.
struct ShareOrigin {
  std::string volume;  // "/volume1"
  std::string path;    // of its subvolume
  std::string source;  // "volume", "samba", "snapper" or "file"
  std::string place;   // what tells of it: the volume, or a file
};

// Nothing when the share does not exist or cannot be reached.
std::optional<ShareOrigin> FindPlace(const std::string& share);

// The names of all shares, sorted.
struct ShareNames {
  std::vector<std::string> names;
  ExitStatus status = kOk;  // kShareOutOfReach: those of a volume that is not there are missing
};

// Says which volumes are not there, and which shares others hide. Gives up when the shares cannot
// be listed.
ShareNames AllShares();

// Whether the share exists and can be reached.
bool ShareIsThere(const std::string& share);

// As ShareIsThere, or it cannot be told: its volume, for example, is not there.
bool ShareMayExist(const std::string& share);

// The share's snapshots, in the order of their times, those without a time last. A snapshot that is
// deleted while it is looked at is left out; what is mounted among them, too, which is said. Gives
// up when they cannot be listed.
std::vector<Snapshot> SnapshotsOf(const std::string& share);

// Whether its name is UTF-8: the library's records can carry no other.
bool IsRecordable(const Snapshot& snapshot);

// The time that a snapshot's name carries.
std::optional<time_t> TimeInName(const std::string& snapshotName);

// What to do about a share without snapshots.
std::string NextWithoutSnapshots(const std::string& share);

// The directory where the share's snapshots are made, for messages; empty when it cannot be told.
std::string SnapshotDirectoryOf(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_SHARE_H_
