#include "platform/linux/signals.h"

#include <cerrno>

namespace ZorvPlatform {

// pthread_sigmask fails for an unknown operation alone (pthread_sigmask(3)).

sigset_t BlockSignals() {
  sigset_t all;
  sigset_t before;
  (void)sigfillset(&all);
  (void)pthread_sigmask(SIG_BLOCK, &all, &before);
  return before;
}

void RestoreSignals(const sigset_t& mask) {
  const int saved = errno;
  (void)pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  errno = saved;
}

}  // namespace ZorvPlatform
