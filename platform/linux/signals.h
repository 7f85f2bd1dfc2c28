// The calling thread's signal mask around a fork.
#ifndef PLATFORM_LINUX_SIGNALS_H
#define PLATFORM_LINUX_SIGNALS_H

#include <csignal>

namespace ZorvPlatform {

// Blocks all signals, so that no handler of the caller runs in a forked child, and gives the mask
// that was.
sigset_t BlockSignals();

// Restores a mask; keeps errno, because a failed fork comes before it.
void RestoreSignals(const sigset_t& mask);

}  // namespace ZorvPlatform

#endif
