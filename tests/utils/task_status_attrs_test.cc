// Single members of a status file: written, read, converted, and what the log says when not.
#include <limits.h>
#include <time.h>

#include "tests/support/platform_hook.h"
#include "tests/utils/task_files.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

constexpr char kUnit[] = "utils/task_status";
const std::string kFile = "/run/zorvbtrfssnapusage/task_status/t1";

// An object bound to a task that has no file yet.
class BoundTask : public TaskFiles {
 protected:
  BoundTask() { EXPECT_TRUE(status.Init("t1", false)); }

  TaskStatus status;
};

using TaskStatusSetStatusAttr = BoundTask;
using TaskStatusSetStatusIntAttr = BoundTask;
using TaskStatusSetStatusNowTimeAttr = BoundTask;
using TaskStatusGetStatusAttr = BoundTask;
using TaskStatusGetStatusIntAttr = BoundTask;
using TaskStatusGetStatusTimeAttr = BoundTask;
using TaskStatusCheckAttrExist = BoundTask;
using TaskStatusGetJsonVal = BoundTask;
using TaskStatusGetCalculatorStatus = BoundTask;
using TaskStatusGetCalculatorStatusWithCode = BoundTask;
using TaskStatusSetCalculatorStatus = BoundTask;

}  // namespace

#define EXPECT_TASK_LINES(count, priority, function, id, message) \
  EXPECT_EQ(count, log.CountTask(priority, kUnit, function, getpid(), id, message)) << log.Dump()

// ---- Writing a text ----------------------------------------------------------------------------

TEST_F(TaskStatusSetStatusAttr, MissingFileIsMadeWithOneMember) {
  EXPECT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1234"));
  EXPECT_EQ("{\"pid\":\"1234\"}", ReadFile(kFile));
  EXPECT_EQ(0600, ModeOf(kFile));
}

TEST_F(TaskStatusSetStatusAttr, EveryAttributeIsAStringUnderItsKey) {
  for (int attr = 0; attr <= 10; ++attr)
    ASSERT_EQ(0, status.SetStatusAttr(static_cast<TASKSTATUS_ATTR>(attr), std::to_string(attr)));
  EXPECT_EQ(
      "{\"btrfs_cmd\":\"6\",\"end_time\":\"2\",\"error_code\":\"4\",\"error_msg\":\"5\","
      "\"estimated_in_bytes\":\"8\",\"pid\":\"3\",\"processed_in_bytes\":\"7\","
      "\"range_end\":\"10\",\"range_start\":\"9\",\"start_time\":\"1\",\"status\":\"0\"}",
      ReadFile(kFile));
}

TEST_F(TaskStatusSetStatusAttr, OneMemberIsReplacedAndUnknownOnesAreKept) {
  WriteFile(kFile,
            "{\"theirs\":{\"n\":[1,true,null]},\"pid\":\"1\",\"count\":18446744073709551615}");
  EXPECT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_PID, "2"));
  EXPECT_EQ("{\"count\":18446744073709551615,\"pid\":\"2\",\"theirs\":{\"n\":[1,true,null]}}",
            ReadFile(kFile));
  EXPECT_EQ(0644, ModeOf(kFile));
}

TEST_F(TaskStatusSetStatusAttr, MemberOfAnotherTypeBecomesAString) {
  WriteFile(kFile, "{\"pid\":[1,2]}");
  EXPECT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_PID, "2"));
  EXPECT_EQ("{\"pid\":\"2\"}", ReadFile(kFile));
}

TEST_F(TaskStatusSetStatusAttr, TextsComeBackAsTheyWere) {
  const struct {
    const char* name;
    std::string text;
  } kCases[] = {
      {"empty", ""},
      {"blanks", "  a  "},
      {"quotes and backslash", "a\"b\\c"},
      {"line end", "a\nb\r\n"},
      {"control byte", std::string("a\x01z")},
      {"NUL", std::string("a\0b", 3)},
      {"UTF-8", "gr\xc3\xbc\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x92\xbe"},
      {"largest count", "18446744073709551615"},
      {"long", std::string(1 << 20, 'x')},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, c.text));
    std::string text;
    EXPECT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, text));
    EXPECT_EQ(c.text, text);
  }
}

TEST_F(TaskStatusSetStatusAttr, TextThatIsNotUtf8IsRefused) {
  WriteFile(kFile, "{\"pid\":\"1\"}");
  EXPECT_EQ(1, status.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, "a\xff"));
  EXPECT_EQ("{\"pid\":\"1\"}", ReadFile(kFile));
}

TEST_F(TaskStatusSetStatusAttr, FailedWriteLeavesTheFile) {
  WriteFile(kFile, "{\"pid\":\"1\"}");
  {
    const ReadOnlyDir refuse("/run/zorvbtrfssnapusage/task_status");
    EXPECT_EQ(1, status.SetStatusAttr(TASKSTATUS_ATTR_PID, "2"));
  }
  EXPECT_EQ("{\"pid\":\"1\"}", ReadFile(kFile));
}

TEST_F(TaskStatusSetStatusAttr, InvalidObjectIsSevenInBothForms) {
  InBothInvalidForms([this](const Form& form) {
    EXPECT_EQ(7, form.status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"));
    EXPECT_TASK_LINES(1, LOG_ERR, "SetStatusAttr", form.id, "Invalid object");
  });
}

TEST_F(TaskStatusSetStatusAttr, WithoutTheLockItWritesAndSaysSoInBothForms) {
  InBothForms([this](const Form& form) {
    std::filesystem::create_directories(form.lock);
    EXPECT_EQ(0, form.status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"));
    EXPECT_EQ("{\"pid\":\"1\"}", ReadFile(form.file));
    EXPECT_TASK_LINES(1, LOG_ERR, "SetStatusAttr", form.id, "lock failed");
  });
}

// ---- Writing a number --------------------------------------------------------------------------

TEST_F(TaskStatusSetStatusIntAttr, PidIsStoredAsText) {
  EXPECT_EQ(0, status.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 1234));
  EXPECT_EQ("{\"pid\":\"1234\"}", ReadFile(kFile));
  int pid = 0;
  EXPECT_EQ(0, status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, pid));
  EXPECT_EQ(1234, pid);
}

TEST_F(TaskStatusSetStatusIntAttr, NumbersAreDecimal) {
  const struct {
    int value;
    const char* text;
  } kCases[] = {{0, "0"}, {-1, "-1"}, {INT_MAX, "2147483647"}, {INT_MIN, "-2147483648"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(0, status.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, c.value));
    std::string text;
    int value = 77;
    EXPECT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_CODE, text));
    EXPECT_EQ(c.text, text);
    EXPECT_EQ(0, status.GetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, value));
    EXPECT_EQ(c.value, value);
  }
}

TEST_F(TaskStatusSetStatusIntAttr, FailedWriteIsOne) {
  const ReadOnlyDir refuse("/run/zorvbtrfssnapusage/task_status");
  EXPECT_EQ(1, status.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 2));
}

TEST_F(TaskStatusSetStatusIntAttr, InvalidObjectIsOne) {
  TaskStatus invalid;
  EXPECT_EQ(1, invalid.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 2));
  EXPECT_TASK_LINES(1, LOG_ERR, "SetStatusAttr", "", "Invalid object");
}

// ---- Writing the time --------------------------------------------------------------------------

TEST_F(TaskStatusSetStatusNowTimeAttr, StoresTheTimeTextOfNow) {
  const time_t before = time(nullptr);
  EXPECT_EQ(0, status.SetStatusNowTimeAttr(TASKSTATUS_ATTR_START_TIME));
  const time_t after = time(nullptr);
  time_t stored = 0;
  EXPECT_EQ(0, status.GetStatusTimeAttr(TASKSTATUS_ATTR_START_TIME, stored));
  EXPECT_LE(before, stored);
  EXPECT_GE(after, stored);
}

TEST_F(TaskStatusSetStatusNowTimeAttr, FormOfTheText) {
  PlatformHook<time_t(time_t*)> clock("time");
  clock.Replace([](time_t*) { return time_t{1709658249}; });
  ASSERT_EQ(0, setenv("TZ", "UTC0", 1));
  EXPECT_EQ(0, status.SetStatusNowTimeAttr(TASKSTATUS_ATTR_END_TIME));
  EXPECT_EQ("{\"end_time\":\"2024.03.05-17.04.09\"}", ReadFile(kFile));
  ASSERT_EQ(0, unsetenv("TZ"));
}

TEST_F(TaskStatusSetStatusNowTimeAttr, NoTimeFailsInBothForms) {
  InBothForms([this](const Form& form) {
    PlatformHook<time_t(time_t*)> clock("time");
    clock.AlwaysFails();
    EXPECT_EQ(1, form.status.SetStatusNowTimeAttr(TASKSTATUS_ATTR_START_TIME));
    EXPECT_EQ(0x2A00u, PLATCErrGet());
    EXPECT_TASK_LINES(1, LOG_ERR, "SetStatusNowTimeAttr", form.id,
                      "Failed to get the now string[0x2A00 intl_utils/utils:" +
                          std::to_string(PLATCErrorGetLine()) + "]");
    EXPECT_FALSE(std::filesystem::exists(form.file));
  });
}

TEST_F(TaskStatusSetStatusNowTimeAttr, FailedWriteIsOne) {
  const ReadOnlyDir refuse("/run/zorvbtrfssnapusage/task_status");
  EXPECT_EQ(1, status.SetStatusNowTimeAttr(TASKSTATUS_ATTR_START_TIME));
}

TEST_F(TaskStatusSetStatusNowTimeAttr, InvalidObjectIsOne) {
  TaskStatus invalid;
  EXPECT_EQ(1, invalid.SetStatusNowTimeAttr(TASKSTATUS_ATTR_START_TIME));
}

// ---- Reading a text ----------------------------------------------------------------------------

TEST_F(TaskStatusGetStatusAttr, ReadsOneMember) {
  WriteFile(kFile, "{\"status\":\"done\",\"pid\":\"7\"}");
  std::string text;
  EXPECT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_PID, text));
  EXPECT_EQ("7", text);
}

TEST_F(TaskStatusGetStatusAttr, SeesWhatAnotherObjectWroteMeanwhile) {
  TaskStatus other("t1");
  std::string text;
  ASSERT_EQ(0, other.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"));
  EXPECT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_PID, text));
  EXPECT_EQ("1", text);
  ASSERT_EQ(0, other.SetStatusAttr(TASKSTATUS_ATTR_PID, "2"));
  EXPECT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_PID, text));
  EXPECT_EQ("2", text);
}

TEST_F(TaskStatusGetStatusAttr, MissingMemberIsOneInBothForms) {
  InBothForms([this](const Form& form) {
    WriteFile(form.file, "{\"status\":\"ready\"}");
    std::string text = "untouched";
    EXPECT_EQ(1, form.status.GetStatusAttr(TASKSTATUS_ATTR_RANGE_START, text));
    EXPECT_EQ("untouched", text);
    EXPECT_TASK_LINES(1, LOG_DEBUG, "GetStatusAttr", form.id, "Do not have member (range_start)");
  });
}

TEST_F(TaskStatusGetStatusAttr, MissingFileIsOne) {
  std::string text = "untouched";
  EXPECT_EQ(1, status.GetStatusAttr(TASKSTATUS_ATTR_STATUS, text));
  EXPECT_EQ("untouched", text);
  EXPECT_TASK_LINES(1, LOG_DEBUG, "GetStatusAttr", "t1", "Do not have member (status)");
  EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(TaskStatusGetStatusAttr, InvalidObjectIsSevenInBothForms) {
  InBothInvalidForms([this](const Form& form) {
    std::string text = "untouched";
    EXPECT_EQ(7, form.status.GetStatusAttr(TASKSTATUS_ATTR_PID, text));
    EXPECT_EQ("untouched", text);
    EXPECT_TASK_LINES(1, LOG_ERR, "GetStatusAttr", form.id, "Invalid object");
  });
}

TEST_F(TaskStatusGetStatusAttr, WithoutTheLockItReadsAndSaysSoInBothForms) {
  InBothForms([this](const Form& form) {
    WriteFile(form.file, "{\"pid\":\"5\"}");
    std::filesystem::create_directories(form.lock);
    std::string text;
    EXPECT_EQ(0, form.status.GetStatusAttr(TASKSTATUS_ATTR_PID, text));
    EXPECT_EQ("5", text);
    EXPECT_TASK_LINES(1, LOG_ERR, "GetStatusAttr", form.id, "lock failed");
  });
}

// ---- Reading a number --------------------------------------------------------------------------

TEST_F(TaskStatusGetStatusIntAttr, BeginningOfTheTextIsConverted) {
  const struct {
    const char* name;
    const char* text;
    int value;
  } kCases[] = {
      {"plain", "1234", 1234},         {"negative", "-5", -5},         {"plus sign", "+7", 7},
      {"leading blanks", " \t12", 12}, {"trailing text", "12abc", 12}, {"fraction", "3.9", 3},
      {"not hexadecimal", "0x10", 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_PID, c.text));
    int value = 77;
    EXPECT_EQ(0, status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, value));
    EXPECT_EQ(c.value, value);
  }
}

TEST_F(TaskStatusGetStatusIntAttr, TextWithoutANumberFailsInBothForms) {
  for (const std::string text : {"abc", "", " ", "-", "x12"}) {
    SCOPED_TRACE(text);
    log.Clear();
    InBothForms([&](const Form& form) {
      ASSERT_EQ(0, form.status.SetStatusAttr(TASKSTATUS_ATTR_PID, text));
      int value = 77;
      errno = EIO;
      EXPECT_EQ(1, form.status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, value));
      EXPECT_EQ(77, value);
      EXPECT_TASK_LINES(1, LOG_ERR, "GetStatusIntAttr", form.id,
                        "Failed to convert [" + text + "] into integer value, errno: Success");
    });
  }
}

TEST_F(TaskStatusGetStatusIntAttr, MissingMemberIsOne) {
  int value = 77;
  EXPECT_EQ(1, status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, value));
  EXPECT_EQ(77, value);
  EXPECT_EQ(0, log.Count("Failed to convert")) << log.Dump();
}

TEST_F(TaskStatusGetStatusIntAttr, InvalidObjectIsOne) {
  TaskStatus invalid;
  int value = 77;
  EXPECT_EQ(1, invalid.GetStatusIntAttr(TASKSTATUS_ATTR_PID, value));
  EXPECT_EQ(77, value);
}

// ---- Reading a time ----------------------------------------------------------------------------

TEST_F(TaskStatusGetStatusTimeAttr, TimeTextBecomesSeconds) {
  ASSERT_EQ(0, setenv("TZ", "UTC0", 1));
  tzset();
  ASSERT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_RANGE_START, "2024.03.05-17.04.09"));
  time_t value = 0;
  EXPECT_EQ(0, status.GetStatusTimeAttr(TASKSTATUS_ATTR_RANGE_START, value));
  EXPECT_EQ(1709658249, value);
  ASSERT_EQ(0, unsetenv("TZ"));
}

TEST_F(TaskStatusGetStatusTimeAttr, OtherTextIsOneWithoutALineOfThisUnit) {
  ASSERT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_RANGE_START, "2024-03-05 17:04:09"));
  log.Clear();
  time_t value = 77;
  EXPECT_EQ(1, status.GetStatusTimeAttr(TASKSTATUS_ATTR_RANGE_START, value));
  EXPECT_EQ(77, value);
  EXPECT_EQ(0, log.Count(kUnit)) << log.Dump();
}

TEST_F(TaskStatusGetStatusTimeAttr, MissingMemberIsOne) {
  time_t value = 77;
  EXPECT_EQ(1, status.GetStatusTimeAttr(TASKSTATUS_ATTR_RANGE_START, value));
  EXPECT_EQ(77, value);
}

TEST_F(TaskStatusGetStatusTimeAttr, InvalidObjectIsOne) {
  TaskStatus invalid;
  time_t value = 77;
  EXPECT_EQ(1, invalid.GetStatusTimeAttr(TASKSTATUS_ATTR_RANGE_START, value));
  EXPECT_EQ(77, value);
}

// ---- Whether a member is there -----------------------------------------------------------------

TEST_F(TaskStatusCheckAttrExist, FollowsTheFile) {
  EXPECT_FALSE(status.CheckAttrExist(TASKSTATUS_ATTR_PID));
  WriteFile(kFile, "{\"pid\":null,\"status\":\"ready\"}");
  EXPECT_TRUE(status.CheckAttrExist(TASKSTATUS_ATTR_PID));
  EXPECT_TRUE(status.CheckAttrExist(TASKSTATUS_ATTR_STATUS));
  EXPECT_FALSE(status.CheckAttrExist(TASKSTATUS_ATTR_ERROR_CODE));
}

TEST_F(TaskStatusCheckAttrExist, InvalidObjectAnswersNoAfterTheLockErrors) {
  InBothInvalidForms([this](const Form& form) {
    EXPECT_FALSE(form.status.CheckAttrExist(TASKSTATUS_ATTR_STATUS));
    EXPECT_TASK_LINES(1, LOG_ERR, "LockFile", form.id, "Invalid object");
    EXPECT_TASK_LINES(1, LOG_ERR, "CheckAttrExist", form.id, "lock failed");
  });
}

TEST_F(TaskStatusCheckAttrExist, WithoutTheLockItReadsAndSaysSoInBothForms) {
  InBothForms([this](const Form& form) {
    WriteFile(form.file, "{\"pid\":\"5\"}");
    std::filesystem::create_directories(form.lock);
    EXPECT_TRUE(form.status.CheckAttrExist(TASKSTATUS_ATTR_PID));
    EXPECT_TASK_LINES(1, LOG_ERR, "CheckAttrExist", form.id, "lock failed");
  });
}

// ---- The whole object --------------------------------------------------------------------------

TEST_F(TaskStatusGetJsonVal, GivesAllMembers) {
  WriteFile(kFile, "{\"pid\":\"5\",\"theirs\":[1]}");
  Json::Value value;
  EXPECT_EQ(0, status.GetJsonVal(value));
  EXPECT_EQ(2u, value.size());
  EXPECT_EQ("5", value["pid"].asString());
  EXPECT_EQ(1, value["theirs"][0].asInt());
}

TEST_F(TaskStatusGetJsonVal, MissingFileIsANullValue) {
  Json::Value value = "before";
  EXPECT_EQ(0, status.GetJsonVal(value));
  EXPECT_TRUE(value.isNull());
}

TEST_F(TaskStatusGetJsonVal, InvalidObjectIsSevenInBothForms) {
  InBothInvalidForms([this](const Form& form) {
    Json::Value value = "before";
    EXPECT_EQ(7, form.status.GetJsonVal(value));
    EXPECT_EQ("before", value.asString());
    EXPECT_TASK_LINES(1, LOG_ERR, "GetJsonVal", form.id, "Invalid object" + kTail);
  });
}

TEST_F(TaskStatusGetJsonVal, WithoutTheLockItReadsAndSaysSoInBothForms) {
  InBothForms([this](const Form& form) {
    WriteFile(form.file, "{\"pid\":\"5\"}");
    std::filesystem::create_directories(form.lock);
    Json::Value value;
    EXPECT_EQ(0, form.status.GetJsonVal(value));
    EXPECT_EQ("5", value["pid"].asString());
    EXPECT_TASK_LINES(1, LOG_ERR, "GetJsonVal", form.id, "lock failed");
  });
}

// ---- The state ---------------------------------------------------------------------------------

TEST_F(TaskStatusGetCalculatorStatus, EveryWordBecomesItsState) {
  const char* const kWords[] = {"ready", "process", "fail", "stop", "done"};
  for (int i = 0; i < 5; ++i) {
    SCOPED_TRACE(kWords[i]);
    ASSERT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_STATUS, kWords[i]));
    auto state = static_cast<CAL_TASK_STATUS>(77);
    EXPECT_EQ(0, status.GetCalculatorStatus(state));
    EXPECT_EQ(i, static_cast<int>(state));
  }
}

TEST_F(TaskStatusGetCalculatorStatus, NoStateIsOneInBothForms) {
  InBothForms([this](const Form& form) {
    auto state = static_cast<CAL_TASK_STATUS>(77);
    EXPECT_EQ(1, form.status.GetCalculatorStatus(state));
    EXPECT_EQ(77, static_cast<int>(state));
    EXPECT_TASK_LINES(1, LOG_DEBUG, "GetCalculatorStatus", form.id,
                      "Failed to get status of TaskStatus");
  });
}

TEST_F(TaskStatusGetCalculatorStatus, WordOutsideTheVocabularyIsOneInBothForms) {
  InBothForms([this](const Form& form) {
    ASSERT_EQ(0, form.status.SetStatusAttr(TASKSTATUS_ATTR_STATUS, "finished"));
    auto state = static_cast<CAL_TASK_STATUS>(77);
    EXPECT_EQ(1, form.status.GetCalculatorStatus(state));
    EXPECT_EQ(77, static_cast<int>(state));
    EXPECT_TASK_LINES(1, LOG_ERR, "GetCalculatorStatus", form.id,
                      "Failed to convert status finished to enum index");
  });
}

TEST_F(TaskStatusGetCalculatorStatus, InvalidObjectIsOne) {
  TaskStatus invalid;
  auto state = static_cast<CAL_TASK_STATUS>(77);
  EXPECT_EQ(1, invalid.GetCalculatorStatus(state));
  EXPECT_TASK_LINES(1, LOG_ERR, "GetStatusAttr", "", "Invalid object");
  EXPECT_TASK_LINES(1, LOG_DEBUG, "GetCalculatorStatus", "", "Failed to get status of TaskStatus");
}

TEST_F(TaskStatusGetCalculatorStatusWithCode, UnfinishedHasNoCodeAndReadsNone) {
  for (const char* word : {"ready", "process"}) {
    SCOPED_TRACE(word);
    WriteFile(kFile, std::string("{\"error_code\":\"abc\",\"status\":\"") + word + "\"}");
    log.Clear();
    CAL_TASK_STATUS state = CAL_TASK_STATUS_DONE;
    int code = 77;
    EXPECT_EQ(0, status.GetCalculatorStatus(state, code));
    EXPECT_EQ(-1, code);
    EXPECT_EQ(word, _cal_task_status_str.at(state));
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  }
}

TEST_F(TaskStatusGetCalculatorStatusWithCode, ProcessIsOneWithMinusOne) {
  ASSERT_EQ(0, status.SetCalculatorStatus(CAL_TASK_STATUS_PROCESS));
  CAL_TASK_STATUS state = CAL_TASK_STATUS_DONE;
  int code = 77;
  EXPECT_EQ(0, status.GetCalculatorStatus(state, code));
  EXPECT_EQ(1, static_cast<int>(state));
  EXPECT_EQ(-1, code);
}

TEST_F(TaskStatusGetCalculatorStatusWithCode, FinishedHasItsCode) {
  const struct {
    CAL_TASK_STATUS state;
    int code;
  } kCases[] = {{CAL_TASK_STATUS_FAIL, 13}, {CAL_TASK_STATUS_STOP, 12}, {CAL_TASK_STATUS_DONE, 0}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.code);
    ASSERT_EQ(0, status.SetCalculatorStatus(c.state));
    ASSERT_EQ(0, status.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, c.code));
    CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
    int code = 77;
    EXPECT_EQ(0, status.GetCalculatorStatus(state, code));
    EXPECT_EQ(c.state, state);
    EXPECT_EQ(c.code, code);
  }
}

TEST_F(TaskStatusGetCalculatorStatusWithCode, DoneWithoutACodeFailsInBothForms) {
  InBothForms([this](const Form& form) {
    ASSERT_EQ(0, form.status.SetCalculatorStatus(CAL_TASK_STATUS_DONE));
    CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
    int code = 77;
    EXPECT_EQ(1, form.status.GetCalculatorStatus(state, code));
    EXPECT_EQ(CAL_TASK_STATUS_DONE, state);
    EXPECT_EQ(77, code);
    EXPECT_TASK_LINES(1, LOG_ERR, "GetCalculatorStatus", form.id,
                      "Failed to get error code of TaskStatus");
  });
}

TEST_F(TaskStatusGetCalculatorStatusWithCode, DoneWithACodeThatIsNoNumberFails) {
  WriteFile(kFile, "{\"error_code\":\"abc\",\"status\":\"done\"}");
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  int code = 77;
  EXPECT_EQ(1, status.GetCalculatorStatus(state, code));
  EXPECT_EQ(77, code);
  EXPECT_TASK_LINES(1, LOG_ERR, "GetCalculatorStatus", "t1",
                    "Failed to get error code of TaskStatus");
}

TEST_F(TaskStatusGetCalculatorStatusWithCode, NoStateIsOneWithNothingFurtherLogged) {
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  int code = 77;
  EXPECT_EQ(1, status.GetCalculatorStatus(state, code));
  EXPECT_EQ(77, code);
  EXPECT_EQ(1, log.Count("(GetCalculatorStatus)")) << log.Dump();
}

TEST_F(TaskStatusSetCalculatorStatus, EveryStateBecomesItsWord) {
  const char* const kTexts[] = {"{\"status\":\"ready\"}", "{\"status\":\"process\"}",
                                "{\"status\":\"fail\"}", "{\"status\":\"stop\"}",
                                "{\"status\":\"done\"}"};
  for (int i = 0; i < 5; ++i) {
    SCOPED_TRACE(kTexts[i]);
    EXPECT_EQ(0, status.SetCalculatorStatus(static_cast<CAL_TASK_STATUS>(i)));
    EXPECT_EQ(kTexts[i], ReadFile(kFile));
  }
}

TEST_F(TaskStatusSetCalculatorStatus, FailedWriteIsOneInBothForms) {
  InBothForms([this](const Form& form) {
    const ReadOnlyDir refuse(std::filesystem::path(form.file).parent_path());
    EXPECT_EQ(1, form.status.SetCalculatorStatus(CAL_TASK_STATUS_DONE));
    EXPECT_TASK_LINES(1, LOG_ERR, "SetCalculatorStatus", form.id,
                      "Failed to initialize status of TaskStatus");
  });
}

TEST_F(TaskStatusSetCalculatorStatus, InvalidObjectIsOne) {
  TaskStatus invalid;
  EXPECT_EQ(1, invalid.SetCalculatorStatus(CAL_TASK_STATUS_DONE));
  EXPECT_TASK_LINES(1, LOG_ERR, "SetStatusAttr", "", "Invalid object");
  EXPECT_TASK_LINES(1, LOG_ERR, "SetCalculatorStatus", "",
                    "Failed to initialize status of TaskStatus");
}
