// The names under which a share's latest calculation measured its snapshots.
#ifndef CLI_RECORDED_SNAPSHOTS_H_
#define CLI_RECORDED_SNAPSHOTS_H_

#include <map>
#include <string>

namespace ZorvSnapUsage {

// By their subvolume IDs; of several names of one ID the first. Read at once: the library tells one
// after the other, and reads all of them for each. None where nothing of the share is recorded.
std::map<unsigned long long, std::string> RecordedSnapshots(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_RECORDED_SNAPSHOTS_H_
