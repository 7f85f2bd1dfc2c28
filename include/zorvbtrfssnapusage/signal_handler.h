// The handler of stop signals in a calculating process.
#ifndef ZORVBTRFSSNAPUSAGE_SIGNAL_HANDLER_H_
#define ZORVBTRFSSNAPUSAGE_SIGNAL_HANDLER_H_

#include "zorvbtrfssnapusage/export.h"

namespace ZorvBtrfsUsage {

// Handlers that the command runner installs.
class ZORV_EXPORT SignalHandler {
 public:
  // Remembers SIGTERM (15) or SIGKILL (9) in BtrfsTool::gSignal; any other signal is ignored.
  static void handleSnapUsageCalulate(int sig);
};

}  // namespace ZorvBtrfsUsage

#endif  // ZORVBTRFSSNAPUSAGE_SIGNAL_HANDLER_H_
