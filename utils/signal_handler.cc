#include "zorvbtrfssnapusage/signal_handler.h"

#include <errno.h>
#include <signal.h>

#include "base/log.h"
#include "zorvbtrfssnapusage/btrfs_tool.h"

namespace ZorvBtrfsUsage {
namespace {
constexpr char kLogUnit[] = "utils/signal_handler";
}

void SignalHandler::handleSnapUsageCalulate(int sig) {
  if (sig != SIGKILL && sig != SIGTERM) return;

  // Logging is safe here because the signal is let in only where the flag is about to be tested.
  const int saved = errno;
  ZLOG(LOG_DEBUG, "SnapUsageCalculator got signal %d", sig);
  errno = saved;

  BtrfsTool::gSignal = sig;
}

}  // namespace ZorvBtrfsUsage
