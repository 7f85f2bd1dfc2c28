// Status files that somebody else wrote, or that are broken: every operation gives its documented
// failure, no exception leaves the library, and what is not an object is never overwritten.
#include "tests/utils/task_files.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

constexpr char kUnit[] = "utils/task_status";
const std::string kFile = "/run/zorvbtrfssnapusage/task_status/t1";

class TaskStatusForeignFiles : public TaskFiles {
 protected:
  TaskStatusForeignFiles() { EXPECT_TRUE(status.Init("t1", false)); }

  void ExpectNoMember() {
    std::string text = "untouched";
    int number = 77;
    time_t seconds = 77;
    auto state = static_cast<CAL_TASK_STATUS>(77);
    EXPECT_EQ(1, status.GetStatusAttr(TASKSTATUS_ATTR_STATUS, text));
    EXPECT_EQ("untouched", text);
    EXPECT_EQ(1, status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, number));
    EXPECT_EQ(77, number);
    EXPECT_EQ(1, status.GetStatusTimeAttr(TASKSTATUS_ATTR_START_TIME, seconds));
    EXPECT_EQ(77, seconds);
    EXPECT_FALSE(status.CheckAttrExist(TASKSTATUS_ATTR_STATUS));
    EXPECT_EQ(1, status.GetCalculatorStatus(state));
    EXPECT_EQ(1, status.GetCalculatorStatus(state, number));
    EXPECT_EQ(77, static_cast<int>(state));
    EXPECT_EQ(77, number);
  }

  // Every write is refused and the file is what it was.
  void ExpectRefusesWrites(const std::string& content) {
    EXPECT_EQ(1, status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"));
    EXPECT_EQ(1, status.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 1));
    EXPECT_EQ(1, status.SetStatusNowTimeAttr(TASKSTATUS_ATTR_END_TIME));
    EXPECT_EQ(1, status.SetCalculatorStatus(CAL_TASK_STATUS_DONE));
    TaskStatus source("src");
    EXPECT_FALSE(status.Import(source));
    TaskStatus fresh;
    EXPECT_FALSE(fresh.Init("t1", true));
    EXPECT_TRUE(ReadFile(kFile) == content);
  }

  TaskStatus status;
};

std::string Nested(int levels, const std::string& open, const std::string& close) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += open;
  for (int i = 0; i < levels; ++i) text += close;
  return text;
}

}  // namespace

TEST_F(TaskStatusForeignFiles, JsonThatIsNoObjectHasNoMembersAndIsNotOverwritten) {
  const struct {
    const char* name;
    const char* text;
  } kCases[] = {
      {"array", "[\"status\",\"ready\"]"},
      {"empty array", "[]"},
      {"number", "5"},
      {"negative number", "-1.5"},
      {"string", "\"status\""},
      {"true", "true"},
      {"false", "false"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile(kFile, c.text);
    ExpectNoMember();
    ExpectRefusesWrites(c.text);
    Json::Value value = "before";
    EXPECT_EQ(1, status.GetJsonVal(value));
    EXPECT_EQ("before", value.asString());
  }
}

TEST_F(TaskStatusForeignFiles, RefusedWriteIsLoggedInBothForms) {
  InBothForms([this](const Form& form) {
    WriteFile(form.file, "[]");
    EXPECT_EQ(1, form.status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"));
    EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "SetStatusAttr", getpid(), form.id,
                               "Failed to write task attr. to file [" + form.file + "]" + kTail))
        << log.Dump();
  });
}

TEST_F(TaskStatusForeignFiles, SourceThatIsNoObjectIsNotImported) {
  WriteFile(kRun + "/task_status/src", "[\"status\"]");
  TaskStatus source("src");
  EXPECT_FALSE(status.Import(source));
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "Import", getpid(), "src",
                             "Failed to get json value" + kTail))
      << log.Dump();
  EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(TaskStatusForeignFiles, TextsWithoutJsonReadAsNothingAndAreReplaced) {
  const struct {
    const char* name;
    std::string text;
  } kCases[] = {
      {"empty", ""},
      {"blanks", " \n"},
      {"null", "null"},
      {"words", "hello"},
      {"zeros", std::string(64, '\0')},
      {"cut in the brace", "{"},
      {"binary",
       "\x7f"
       "ELF\x02\x01"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile(kFile, c.text);
    ExpectNoMember();
    Json::Value value;
    EXPECT_EQ(0, status.GetJsonVal(value));
    EXPECT_EQ(0u, value.size());
    EXPECT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"));
    EXPECT_EQ("{\"pid\":\"1\"}", ReadFile(kFile));
  }
}

TEST_F(TaskStatusForeignFiles, CutFileAtEveryByteEndsInACode) {
  const std::string whole = "{\"pid\":\"12\",\"status\":\"done\"}";
  for (size_t length = 0; length < whole.size(); ++length) {
    SCOPED_TRACE(whole.substr(0, length));
    WriteFile(kFile, whole.substr(0, length));
    CAL_TASK_STATUS state;
    int code;
    EXPECT_EQ(1, status.GetCalculatorStatus(state, code));
    EXPECT_EQ(0, status.SetCalculatorStatus(CAL_TASK_STATUS_FAIL));
    EXPECT_EQ(0, status.GetCalculatorStatus(state));
    EXPECT_EQ(CAL_TASK_STATUS_FAIL, state);
  }
}

TEST_F(TaskStatusForeignFiles, ScalarsOfOtherTypesReadAsTheirText) {
  WriteFile(kFile, "{\"pid\":12,\"error_code\":true,\"error_msg\":null,\"status\":\"done\"}");
  std::string text;
  int number = 77;
  EXPECT_EQ(0, status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, number));
  EXPECT_EQ(12, number);
  EXPECT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_CODE, text));
  EXPECT_EQ("true", text);
  EXPECT_EQ(0, status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, text));
  EXPECT_EQ("", text);
}

TEST_F(TaskStatusForeignFiles, ArraysAndObjectsAreNoText) {
  for (const char* member : {"[\"ready\"]", "{\"ready\":1}", "[]", "{}"}) {
    SCOPED_TRACE(member);
    WriteFile(kFile, std::string("{\"status\":") + member + "}");
    std::string text = "untouched";
    CAL_TASK_STATUS state;
    EXPECT_EQ(1, status.GetStatusAttr(TASKSTATUS_ATTR_STATUS, text));
    EXPECT_EQ("untouched", text);
    EXPECT_EQ(1, status.GetCalculatorStatus(state));
    EXPECT_TRUE(status.CheckAttrExist(TASKSTATUS_ATTR_STATUS));
  }
  EXPECT_EQ(8, log.CountTask(LOG_DEBUG, kUnit, "GetStatusAttr", getpid(), "t1",
                             "Do not have member (status)"))
      << log.Dump();
}

TEST_F(TaskStatusForeignFiles, DeepNestingEndsInACode) {
  const struct {
    const char* name;
    std::string text;
  } kCases[] = {
      {"arrays", Nested(2000, "[", "]")},
      {"objects", Nested(2000, "{\"a\":", "}")},
      {"in a member", "{\"pid\":" + Nested(2000, "[", "]") + "}"},
      {"never closed", std::string(2000, '[')},
      {"a hundred thousand", std::string(100000, '[')},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile(kFile, c.text);
    ExpectNoMember();
    Json::Value value;
    (void)status.GetJsonVal(value);
    EXPECT_EQ(1, status.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, "x"));
    EXPECT_TRUE(ReadFile(kFile) == c.text);
  }
}

TEST_F(TaskStatusForeignFiles, FiftyMegabytes) {
  const std::string big(50 << 20, 'x');
  WriteFile(kFile, "{\"status\":\"done\",\"theirs\":\"" + big + "\"}");
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  EXPECT_EQ(0, status.GetCalculatorStatus(state));
  EXPECT_EQ(CAL_TASK_STATUS_DONE, state);
  EXPECT_EQ(0, status.SetCalculatorStatus(CAL_TASK_STATUS_FAIL));
  EXPECT_EQ(std::string("{\"status\":\"fail\",\"theirs\":\"").size() + big.size() + 2,
            std::filesystem::file_size(kFile));

  WriteFile(kFile, "[\"" + big + "\"]");
  ExpectNoMember();
  EXPECT_EQ(1, status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"));
}

TEST_F(TaskStatusForeignFiles, DirectoryInPlaceOfTheFile) {
  std::filesystem::create_directories(kFile);
  ExpectNoMember();
  EXPECT_EQ(1, status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1"));
  EXPECT_EQ(1, status.SetCalculatorStatus(CAL_TASK_STATUS_DONE));
  TaskStatus source("src");
  EXPECT_FALSE(status.Import(source));
  TaskStatus fresh;
  EXPECT_FALSE(fresh.Init("t1", true));
  EXPECT_TRUE(std::filesystem::is_directory(kFile));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(kRun + "/task_status"),
                             std::filesystem::directory_iterator()));
}

TEST_F(TaskStatusForeignFiles, FileThatMayNotBeReadReadsAsNothing) {
  WriteFile(kFile, "{\"status\":\"ready\"}");
  std::filesystem::permissions(kFile, std::filesystem::perms(0600));
  // Without root's rights the file cannot be opened, nor another put in its place.
  EXPECT_EQ(0, InChild([this] {
              if (setgid(65534) != 0 || setuid(65534) != 0) return 1;
              std::string text;
              CAL_TASK_STATUS state;
              Json::Value value;
              if (status.GetStatusAttr(TASKSTATUS_ATTR_STATUS, text) != 1) return 2;
              if (status.CheckAttrExist(TASKSTATUS_ATTR_STATUS)) return 3;
              if (status.GetCalculatorStatus(state) != 1) return 4;
              if (status.GetJsonVal(value) != 0 || !value.isNull()) return 5;
              if (status.SetStatusAttr(TASKSTATUS_ATTR_PID, "1") != 1) return 6;
              return 0;
            }));
  EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kFile));
}

TEST_F(TaskStatusForeignFiles, NumbersThatDoNotFitAreNoCrash) {
  WriteFile(kFile, "{\"pid\":1e999,\"error_code\":123456789012345678901234567890}");
  std::string text;
  const int first = status.GetStatusAttr(TASKSTATUS_ATTR_PID, text);
  EXPECT_TRUE(first == 0 || first == 1);
  const int second = status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_CODE, text);
  EXPECT_TRUE(second == 0 || second == 1);
}
