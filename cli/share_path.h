// Paths of files in a share, as the user gives them.
#ifndef CLI_SHARE_PATH_H_
#define CLI_SHARE_PATH_H_

#include <string>
#include <vector>

namespace ZorvSnapUsage {

// `path` from the root of the share, which lies at `sharePath`; "." is the root itself. The path is
// absolute or from the share, and need not exist. Gives up when it leads out of the share.
std::string PathInShare(const std::string& path, const std::string& share,
                        const std::string& sharePath);

// What the user may have meant by a path that is in none of these directories: a path in one of
// them with another name in one place; empty when there is none that is near.
std::string NearestPath(const std::string& path, const std::vector<std::string>& directories);

}  // namespace ZorvSnapUsage

#endif  // CLI_SHARE_PATH_H_
