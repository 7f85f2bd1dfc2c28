// The two name tables and the conversions over them.
#include "tests/utils/task_files.h"
#include "zorvbtrfssnapusage/types.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

// Read by an initialiser of the program: the tables are there before it.
const std::map<TASKSTATUS_ATTR, std::string> kAttrsAtLoad = _task_status_attr_str;
const std::map<CAL_TASK_STATUS, std::string> kStatesAtLoad = _cal_task_status_str;

// The tables are shared by the whole program: a test that adds rows gives them back as they were.
class TaskStatusNames : public TaskFiles {
 protected:
  ~TaskStatusNames() override {
    _task_status_attr_str = kAttrsAtLoad;
    _cal_task_status_str = kStatesAtLoad;
  }
};
using TaskStatusCnvStatusStrToEnumIdx = TaskStatusNames;
using TaskStatusCnvAttrsStrToEnumIdx = TaskStatusNames;

constexpr auto kAttr11 = static_cast<TASKSTATUS_ATTR>(11);
constexpr auto kState9 = static_cast<CAL_TASK_STATUS>(9);

}  // namespace

TEST_F(TaskStatusNames, ElevenKeysAfterLoad) {
  const std::map<TASKSTATUS_ATTR, std::string> expected = {
      {static_cast<TASKSTATUS_ATTR>(0), "status"},
      {static_cast<TASKSTATUS_ATTR>(1), "start_time"},
      {static_cast<TASKSTATUS_ATTR>(2), "end_time"},
      {static_cast<TASKSTATUS_ATTR>(3), "pid"},
      {static_cast<TASKSTATUS_ATTR>(4), "error_code"},
      {static_cast<TASKSTATUS_ATTR>(5), "error_msg"},
      {static_cast<TASKSTATUS_ATTR>(6), "btrfs_cmd"},
      {static_cast<TASKSTATUS_ATTR>(7), "processed_in_bytes"},
      {static_cast<TASKSTATUS_ATTR>(8), "estimated_in_bytes"},
      {static_cast<TASKSTATUS_ATTR>(9), "range_start"},
      {static_cast<TASKSTATUS_ATTR>(10), "range_end"},
  };
  EXPECT_EQ(11u, kAttrsAtLoad.size());
  EXPECT_EQ(expected, kAttrsAtLoad);
}

TEST_F(TaskStatusNames, FiveStateWordsAfterLoad) {
  const std::map<CAL_TASK_STATUS, std::string> expected = {
      {static_cast<CAL_TASK_STATUS>(0), "ready"}, {static_cast<CAL_TASK_STATUS>(1), "process"},
      {static_cast<CAL_TASK_STATUS>(2), "fail"},  {static_cast<CAL_TASK_STATUS>(3), "stop"},
      {static_cast<CAL_TASK_STATUS>(4), "done"},
  };
  EXPECT_EQ(5u, kStatesAtLoad.size());
  EXPECT_EQ(expected, kStatesAtLoad);
}

TEST_F(TaskStatusNames, EnumeratorsHaveTheirValues) {
  EXPECT_EQ(0, CAL_TASK_STATUS_READY);
  EXPECT_EQ(1, CAL_TASK_STATUS_PROCESS);
  EXPECT_EQ(2, CAL_TASK_STATUS_FAIL);
  EXPECT_EQ(3, CAL_TASK_STATUS_STOP);
  EXPECT_EQ(4, CAL_TASK_STATUS_DONE);
  EXPECT_EQ(0, TASKSTATUS_ATTR_STATUS);
  EXPECT_EQ(1, TASKSTATUS_ATTR_START_TIME);
  EXPECT_EQ(2, TASKSTATUS_ATTR_END_TIME);
  EXPECT_EQ(3, TASKSTATUS_ATTR_PID);
  EXPECT_EQ(4, TASKSTATUS_ATTR_ERROR_CODE);
  EXPECT_EQ(5, TASKSTATUS_ATTR_ERROR_MSG);
  EXPECT_EQ(6, TASKSTATUS_ATTR_BTRFS_CMD);
  EXPECT_EQ(7, TASKSTATUS_ATTR_PROCESSED_IN_BYTES);
  EXPECT_EQ(8, TASKSTATUS_ATTR_ESTIMATED_IN_BYTES);
  EXPECT_EQ(9, TASKSTATUS_ATTR_RANGE_START);
  EXPECT_EQ(10, TASKSTATUS_ATTR_RANGE_END);
  EXPECT_EQ(4u, sizeof(CAL_TASK_STATUS));
  EXPECT_EQ(4u, sizeof(TASKSTATUS_ATTR));
}

TEST_F(TaskStatusCnvStatusStrToEnumIdx, WordsConvert) {
  for (const auto& [value, word] : kStatesAtLoad) {
    SCOPED_TRACE(word);
    auto out = static_cast<CAL_TASK_STATUS>(77);
    EXPECT_EQ(0, TaskStatus::CnvStatusStrToEnumIdx(word, out));
    EXPECT_EQ(value, out);
  }
}

TEST_F(TaskStatusCnvStatusStrToEnumIdx, ReadyIsZeroAndDoneIsFour) {
  auto out = static_cast<CAL_TASK_STATUS>(77);
  EXPECT_EQ(0, TaskStatus::CnvStatusStrToEnumIdx("ready", out));
  EXPECT_EQ(0, static_cast<int>(out));
  EXPECT_EQ(0, TaskStatus::CnvStatusStrToEnumIdx("done", out));
  EXPECT_EQ(4, static_cast<int>(out));
}

TEST_F(TaskStatusCnvStatusStrToEnumIdx, OtherTextsAreNoSuchNameAndLeaveOutAlone) {
  const struct {
    const char* name;
    std::string text;
  } kCases[] = {
      {"capital letter", "Ready"},
      {"all capitals", "DONE"},
      {"leading blank", " ready"},
      {"trailing blank", "ready "},
      {"empty", ""},
      {"beginning of a word", "read"},
      {"longer than a word", "ready1"},
      {"word and a NUL", std::string("ready\0", 6)},
      {"a key", "status"},
      {"a number", "0"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    auto out = static_cast<CAL_TASK_STATUS>(77);
    EXPECT_EQ(8, TaskStatus::CnvStatusStrToEnumIdx(c.text, out));
    EXPECT_EQ(77, static_cast<int>(out));
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskStatusCnvStatusStrToEnumIdx, EmptyTableHasNoName) {
  _cal_task_status_str.clear();
  auto out = static_cast<CAL_TASK_STATUS>(77);
  EXPECT_EQ(8, TaskStatus::CnvStatusStrToEnumIdx("ready", out));
  EXPECT_EQ(77, static_cast<int>(out));
}

TEST_F(TaskStatusCnvStatusStrToEnumIdx, UnknownStateAddsARowThatTheEmptyTextFinds) {
  TaskStatus status;
  ASSERT_TRUE(status.Init("t1", false));
  EXPECT_EQ(0, status.SetCalculatorStatus(kState9));
  EXPECT_EQ("{\"status\":\"\"}", ReadFile(kRun + "/task_status/t1"));
  EXPECT_EQ(6u, _cal_task_status_str.size());
  EXPECT_EQ("", _cal_task_status_str.at(kState9));

  CAL_TASK_STATUS out = CAL_TASK_STATUS_READY;
  EXPECT_EQ(0, TaskStatus::CnvStatusStrToEnumIdx("", out));
  EXPECT_EQ(9, static_cast<int>(out));
}

TEST_F(TaskStatusCnvAttrsStrToEnumIdx, KeysConvert) {
  for (const auto& [value, key] : kAttrsAtLoad) {
    SCOPED_TRACE(key);
    auto out = static_cast<TASKSTATUS_ATTR>(77);
    EXPECT_EQ(0, TaskStatus::CnvAttrsStrToEnumIdx(key, out));
    EXPECT_EQ(value, out);
  }
}

TEST_F(TaskStatusCnvAttrsStrToEnumIdx, RangeEndIsTenAndStatusIsZero) {
  auto out = static_cast<TASKSTATUS_ATTR>(77);
  EXPECT_EQ(0, TaskStatus::CnvAttrsStrToEnumIdx("range_end", out));
  EXPECT_EQ(10, static_cast<int>(out));
  EXPECT_EQ(0, TaskStatus::CnvAttrsStrToEnumIdx("status", out));
  EXPECT_EQ(0, static_cast<int>(out));
}

TEST_F(TaskStatusCnvAttrsStrToEnumIdx, OtherTextsAreNoSuchNameAndLeaveOutAlone) {
  const struct {
    const char* name;
    std::string text;
  } kCases[] = {
      {"outside the table", "snap_list"}, {"capital letter", "Status"},
      {"leading blank", " pid"},          {"empty", ""},
      {"a state word", "ready"},          {"beginning", "range"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    auto out = static_cast<TASKSTATUS_ATTR>(77);
    EXPECT_EQ(8, TaskStatus::CnvAttrsStrToEnumIdx(c.text, out));
    EXPECT_EQ(77, static_cast<int>(out));
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskStatusCnvAttrsStrToEnumIdx, EmptyTableHasNoName) {
  _task_status_attr_str.clear();
  auto out = static_cast<TASKSTATUS_ATTR>(77);
  EXPECT_EQ(8, TaskStatus::CnvAttrsStrToEnumIdx("status", out));
  EXPECT_EQ(77, static_cast<int>(out));
}

TEST_F(TaskStatusCnvAttrsStrToEnumIdx, AttributeElevenAddsARowThatTheEmptyTextFinds) {
  TaskStatus status;
  ASSERT_TRUE(status.Init("t1", false));
  std::string text = "untouched";
  EXPECT_EQ(1, status.GetStatusAttr(kAttr11, text));
  EXPECT_EQ("untouched", text);
  EXPECT_EQ(1, log.CountTask(LOG_DEBUG, "utils/task_status", "GetStatusAttr", getpid(), "t1",
                             "Do not have member ()"))
      << log.Dump();
  EXPECT_EQ(12u, _task_status_attr_str.size());
  EXPECT_EQ("", _task_status_attr_str.at(kAttr11));

  TASKSTATUS_ATTR out = TASKSTATUS_ATTR_STATUS;
  EXPECT_EQ(0, TaskStatus::CnvAttrsStrToEnumIdx("", out));
  EXPECT_EQ(11, static_cast<int>(out));
}

TEST_F(TaskStatusCnvAttrsStrToEnumIdx, LowestOfEqualRowsIsFound) {
  _task_status_attr_str[static_cast<TASKSTATUS_ATTR>(40)] = "";
  _task_status_attr_str[static_cast<TASKSTATUS_ATTR>(-3)] = "";
  TASKSTATUS_ATTR out = TASKSTATUS_ATTR_STATUS;
  EXPECT_EQ(0, TaskStatus::CnvAttrsStrToEnumIdx("", out));
  EXPECT_EQ(-3, static_cast<int>(out));
}

TEST_F(TaskStatusNames, RowIsAddedBeforeTheObjectIsLookedAt) {
  const struct {
    const char* name;
    std::function<void(TaskStatus&)> call;
  } kCases[] = {
      {"GetStatusAttr",
       [](TaskStatus& s) {
         std::string out;
         EXPECT_EQ(7, s.GetStatusAttr(kAttr11, out));
       }},
      {"GetStatusIntAttr",
       [](TaskStatus& s) {
         int out;
         EXPECT_EQ(1, s.GetStatusIntAttr(kAttr11, out));
       }},
      {"GetStatusTimeAttr",
       [](TaskStatus& s) {
         time_t out;
         EXPECT_EQ(1, s.GetStatusTimeAttr(kAttr11, out));
       }},
      {"CheckAttrExist", [](TaskStatus& s) { EXPECT_FALSE(s.CheckAttrExist(kAttr11)); }},
      {"SetStatusAttr", [](TaskStatus& s) { EXPECT_EQ(7, s.SetStatusAttr(kAttr11, "x")); }},
      {"SetStatusIntAttr", [](TaskStatus& s) { EXPECT_EQ(1, s.SetStatusIntAttr(kAttr11, 5)); }},
      {"SetStatusNowTimeAttr",
       [](TaskStatus& s) { EXPECT_EQ(1, s.SetStatusNowTimeAttr(kAttr11)); }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    _task_status_attr_str = kAttrsAtLoad;
    TaskStatus invalid;
    c.call(invalid);
    EXPECT_EQ(1u, _task_status_attr_str.count(kAttr11));
    EXPECT_EQ(12u, _task_status_attr_str.size());
  }
  TaskStatus invalid;
  EXPECT_EQ(1, invalid.SetCalculatorStatus(kState9));
  EXPECT_EQ(1u, _cal_task_status_str.count(kState9));
}

TEST_F(TaskStatusNames, UnknownAttributeIsWrittenUnderTheEmptyKey) {
  TaskStatus status;
  ASSERT_TRUE(status.Init("t1", false));
  EXPECT_EQ(0, status.SetStatusAttr(kAttr11, "x"));
  EXPECT_EQ("{\"\":\"x\"}", ReadFile(kRun + "/task_status/t1"));
}
