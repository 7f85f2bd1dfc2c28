// A file-creation mask for one scope.
#ifndef BASE_SCOPED_UMASK_H_
#define BASE_SCOPED_UMASK_H_

#include <sys/stat.h>

namespace ZorvBtrfsUsage {

// Sets the process's mask and restores the old one:  ScopedUmask tight(077);
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : saved_(umask(mask)) {}
  ~ScopedUmask() { umask(saved_); }
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  const mode_t saved_;
};

}  // namespace ZorvBtrfsUsage

#endif  // BASE_SCOPED_UMASK_H_
