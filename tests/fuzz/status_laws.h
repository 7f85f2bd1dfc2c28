// Laws of a status file with any content, the same for tasks and shares.
#ifndef TESTS_FUZZ_STATUS_LAWS_H_
#define TESTS_FUZZ_STATUS_LAWS_H_

#include <json/value.h>
#include <time.h>

#include <string>

#include "tests/fuzz/target.h"
#include "zorvbtrfssnapusage/task_status.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvTest {

// Reads a status by every operation; what they give belongs together.
inline void ReadEverything(ZorvBtrfsUsage::TaskStatus& status) {
  using namespace ZorvBtrfsUsage;
  for (int attr = TASKSTATUS_ATTR_STATUS; attr <= TASKSTATUS_ATTR_RANGE_END; ++attr) {
    const auto key = static_cast<TASKSTATUS_ATTR>(attr);
    std::string text = "as it was";
    const bool has = status.GetStatusAttr(key, text) == RESULT_OK;
    FUZZ_LAW(has || text == "as it was");
    FUZZ_LAW(!has || status.CheckAttrExist(key));
    int number = 0;
    FUZZ_LAW(status.GetStatusIntAttr(key, number) != RESULT_OK || has);
    time_t time = 0;
    FUZZ_LAW(status.GetStatusTimeAttr(key, time) != RESULT_OK || has);
  }

  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  if (status.GetCalculatorStatus(state) == RESULT_OK) {
    FUZZ_LAW(state >= CAL_TASK_STATUS_READY && state <= CAL_TASK_STATUS_DONE);
    std::string word;
    FUZZ_LAW(status.GetStatusAttr(TASKSTATUS_ATTR_STATUS, word) == RESULT_OK);
    FUZZ_LAW(word == _cal_task_status_str[state]);
    int code = 77;
    const bool ended = state >= CAL_TASK_STATUS_FAIL;
    const bool told = status.GetCalculatorStatus(state, code) == RESULT_OK;
    FUZZ_LAW(ended || (told && code == -1));
  }
}

// Sets a member: all others stay, or nothing changes.
inline void ChangeOneMember(ZorvBtrfsUsage::TaskStatus& status, const std::string& path) {
  using namespace ZorvBtrfsUsage;
  const std::string before = FileContent(path);
  Json::Value expected;
  const bool isJson = Utils::JsonFromFile(expected, path);
  if (status.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, "told") != RESULT_OK) {
    FUZZ_LAW(FileContent(path) == before);
    return;
  }
  std::string text;
  FUZZ_LAW(status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, text) == RESULT_OK && text == "told");
  if (!isJson) return;
  expected["error_msg"] = "told";
  FUZZ_LAW(Utils::GetJsonAttrByPath(path.c_str()) == expected);
}

}  // namespace ZorvTest

#endif  // TESTS_FUZZ_STATUS_LAWS_H_
