// An ext4 file system of a test's own.
#ifndef TESTS_SUPPORT_EXT4_VOLUME_H_
#define TESTS_SUPPORT_EXT4_VOLUME_H_

#include <sys/mount.h>
#include <unistd.h>

#include <string>

#include "tests/support/command.h"

namespace ZorvTest {

// Mounted while it stands.
class Ext4Volume {
 public:
  explicit Ext4Volume(const std::string& mountPoint) : mountPoint_(mountPoint) {
    constexpr char kImage[] = "/tmp/ext4-volume.image";
    MustRun({"truncate", "-s", "16M", kImage});
    MustRun({"mkfs.ext4", "-q", "-F", kImage});
    MustRun({"mkdir", "-p", mountPoint_});
    MustRun({"mount", "-t", "ext4", "-o", "loop", kImage, mountPoint_});
    (void)unlink(kImage);  // the mount keeps it
  }
  ~Ext4Volume() { (void)umount2(mountPoint_.c_str(), MNT_DETACH); }
  Ext4Volume(const Ext4Volume&) = delete;
  Ext4Volume& operator=(const Ext4Volume&) = delete;

 private:
  const std::string mountPoint_;
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_EXT4_VOLUME_H_
