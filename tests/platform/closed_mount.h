// What somebody who owns a directory may mount there, and nobody else may look into.
#ifndef TESTS_PLATFORM_CLOSED_MOUNT_H_
#define TESTS_PLATFORM_CLOSED_MOUNT_H_

#include <fcntl.h>

#include <string>

#include "base/unique_fd.h"
#include "tests/platform/scoped_mount.h"
#include "tests/support/btrfs_ioctls.h"

namespace ZorvTest {

// A FUSE file system of another user's, which refuses root too (EACCES); nobody serves it, and
// whoever asks it in spite of that waits.
class ClosedMount {
 public:
  explicit ClosedMount(const std::string& directory)
      : connection_(Open("/dev/fuse", O_RDWR)),
        mount_("closed", directory, "fuse", MS_NOSUID | MS_NODEV,
               "fd=" + std::to_string(connection_.Get()) +
                   ",rootmode=40000,user_id=1000,group_id=1000") {}

 private:
  const UniqueFd connection_;
  const ScopedMount mount_;
};

}  // namespace ZorvTest

#endif  // TESTS_PLATFORM_CLOSED_MOUNT_H_
