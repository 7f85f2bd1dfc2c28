// A mount that ends with its scope.
#ifndef TESTS_PLATFORM_SCOPED_MOUNT_H
#define TESTS_PLATFORM_SCOPED_MOUNT_H

#include <errno.h>
#include <string.h>
#include <sys/mount.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace ZorvTest {

class ScopedMount {
 public:
  ScopedMount(const std::string& source, const std::string& target, const std::string& type,
              unsigned long flags = 0, const std::string& options = "")
      : target_(target) {
    std::filesystem::create_directories(target);
    if (mount(source.c_str(), target.c_str(), type.c_str(), flags, options.c_str()) != 0)
      throw std::runtime_error("mount at " + target + ": " + strerror(errno));
  }
  ~ScopedMount() {
    (void)umount2(target_.c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove(target_, ignored);
  }
  ScopedMount(const ScopedMount&) = delete;
  ScopedMount& operator=(const ScopedMount&) = delete;

 private:
  const std::string target_;
};

}  // namespace ZorvTest

#endif
