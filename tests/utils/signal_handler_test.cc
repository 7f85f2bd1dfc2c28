// The handler of stop signals: what it remembers, what it says, what it leaves alone.
#include "zorvbtrfssnapusage/signal_handler.h"

#include <errno.h>

#include "tests/support/calc_world.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

// Read before main, so before any test.
const int kFlagAfterLoad = BtrfsTool::gSignal;

class SignalHandlerHandleSnapUsageCalulate : public CalcWorld {};
class BtrfsToolStopFlag : public CalcWorld {};

TEST_F(BtrfsToolStopFlag, IsZeroAfterLoad) { EXPECT_EQ(0, kFlagAfterLoad); }

TEST_F(SignalHandlerHandleSnapUsageCalulate, RemembersSigterm) {
  SignalHandler::handleSnapUsageCalulate(15);
  EXPECT_EQ(15, BtrfsTool::gSignal);
}

TEST_F(SignalHandlerHandleSnapUsageCalulate, RemembersSigkill) {
  SignalHandler::handleSnapUsageCalulate(9);
  EXPECT_EQ(9, BtrfsTool::gSignal);
}

TEST_F(SignalHandlerHandleSnapUsageCalulate, SaysSoAtDebugPriority) {
  SignalHandler::handleSnapUsageCalulate(15);
  SignalHandler::handleSnapUsageCalulate(9);
  for (const char* text : {"SnapUsageCalculator got signal 15", "SnapUsageCalculator got signal 9"})
    EXPECT_EQ(1, log_.CountExact(LOG_DEBUG, "utils/signal_handler", text)) << log_.Dump();
}

TEST_F(SignalHandlerHandleSnapUsageCalulate, OtherSignalsHaveNoEffect) {
  for (const int sig : {0, -1, 1, 2, 8, 10, 14, 16, 64}) {
    SCOPED_TRACE(sig);
    SignalHandler::handleSnapUsageCalulate(sig);
    EXPECT_EQ(0, BtrfsTool::gSignal);
  }
  EXPECT_EQ(0, log_.Count("got signal")) << log_.Dump();
}

TEST_F(SignalHandlerHandleSnapUsageCalulate, OtherSignalsKeepAnEarlierStop) {
  SignalHandler::handleSnapUsageCalulate(15);
  SignalHandler::handleSnapUsageCalulate(2);
  EXPECT_EQ(15, BtrfsTool::gSignal);
}

TEST_F(SignalHandlerHandleSnapUsageCalulate, KeepsErrnoOfWhatItInterrupts) {
  errno = ENOTEMPTY;
  SignalHandler::handleSnapUsageCalulate(15);
  EXPECT_EQ(ENOTEMPTY, errno);
}

TEST_F(SignalHandlerHandleSnapUsageCalulate, AsAHandlerItDoesNotEndTheProcess) {
  ASSERT_NE(SIG_ERR, signal(SIGTERM, &SignalHandler::handleSnapUsageCalulate));
  EXPECT_EQ(0, raise(SIGTERM));
  EXPECT_EQ(15, BtrfsTool::gSignal);
}
