// The prefix of log lines, in its plain form and in both forms of task objects.
#include "base/log.h"

#include <gtest/gtest.h>

#include "tests/support/syslog_capture.h"

using ZorvTest::SyslogCapture;

namespace {

constexpr char kLogUnit[] = "tests/log";

void LogAsTask(const std::string& taskID) {
  ZLOG_TASK(LOG_DEBUG, taskID, "lock failed");
  ZLOG_TASK(LOG_ERR, taskID, "Invalid status = %d", 9);
}

}  // namespace

TEST(Log, PlainLinesHaveUnitAndLine) {
  SyslogCapture log;
  ZLOG(LOG_ERR, "Failed to lookup (%s)", "x");
  const int line = __LINE__ - 1;
  ZLOG(LOG_DEBUG, "no arguments");
  ASSERT_EQ(2u, log.Lines().size());
  EXPECT_EQ("tests/log:" + std::to_string(line) + " Failed to lookup (x)", log.Lines()[0].text);
  EXPECT_EQ(LOG_ERR, log.Lines()[0].priority);
  EXPECT_EQ(1, log.CountExact(LOG_DEBUG, "tests/log", "no arguments")) << log.Dump();
}

TEST(Log, HelpersLogAsFromTheirCaller) {
  SyslogCapture log;
  const ZorvBtrfsUsage::LogSite site{"tests/caller", 77};
  ZLOG_AT(site, LOG_WARNING, "on behalf");
  ASSERT_EQ(1u, log.Lines().size());
  EXPECT_EQ("tests/caller:77 on behalf", log.Lines()[0].text);
  EXPECT_EQ(LOG_WARNING, log.Lines()[0].priority);
}

TEST(Log, TaskLinesNameFunctionProcessAndTask) {
  SyslogCapture log;
  LogAsTask("some-id");
  EXPECT_EQ(1,
            log.CountTask(LOG_DEBUG, "tests/log", "LogAsTask", getpid(), "some-id", "lock failed"))
      << log.Dump();
  EXPECT_EQ(1, log.CountTask(LOG_ERR, "tests/log", "LogAsTask", getpid(), "some-id",
                             "Invalid status = 9"));
}

TEST(Log, TaskLinesWithoutIDLeaveItsBracketsOut) {
  SyslogCapture log;
  LogAsTask("");
  const std::string head = "(LogAsTask)[" + std::to_string(getpid()) + "]: ";
  EXPECT_EQ(1, log.CountExact(LOG_DEBUG, "tests/log", head + "lock failed")) << log.Dump();
  EXPECT_EQ(1, log.CountExact(LOG_ERR, "tests/log", head + "Invalid status = 9"));
}

TEST(Log, InvalidArgumentIsLoggedAndSetsThePlatformError) {
  SyslogCapture log;
  PLATCErrSetEx(0, "", 0);
  ZLOG_INVALID_ARG("__null != fname");
  const unsigned line = __LINE__ - 1;
  EXPECT_EQ(1, log.CountExact(LOG_ERR, "tests/log", "Invaild Argument (__null != fname)=[0]\n"))
      << log.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_STREQ("tests/log", PLATCErrorGetFile());
  EXPECT_EQ(line, PLATCErrorGetLine());
}

TEST(Log, PlatformErrorTail) {
  SyslogCapture log;
  PLATCErrSetEx(0x400, "platform/share", 12);
  ZLOG(LOG_ERR, "tail [0x%04X %s:%d]", PLAT_ERR);
  EXPECT_EQ(1, log.CountExact(LOG_ERR, "tests/log", "tail [0x0400 platform/share:12]"));
  PLAT_ERR_SET(0x2A00);
  EXPECT_EQ(0x2A00u, PLATCErrGet());
  EXPECT_STREQ("tests/log", PLATCErrorGetFile());
}
