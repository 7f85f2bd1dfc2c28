// The command's output, any bytes of it: what is recorded is what a plain reading of the line
// formats gives.
#include <stdio.h>

#include <optional>
#include <vector>

#include "base/unique_fd.h"
#include "tests/fuzz/target.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/task_result.h"
#include "zorvbtrfssnapusage/task_status.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

using Numbers = std::vector<unsigned long long>;

// What a run is to leave.
struct Recorded {
  bool whole = true;  // all lines could be converted
  std::optional<unsigned long long> estimated;
  std::optional<unsigned long long> processed;
  Numbers subvolIDs;
  Numbers bytes;

  void Enter(unsigned long long id, unsigned long long exclusive) {
    for (size_t i = 0; i < subvolIDs.size(); ++i) {
      if (subvolIDs[i] != id) continue;
      bytes[i] = exclusive;
      return;
    }
    subvolIDs.push_back(id);
    bytes.push_back(exclusive);
  }
};

FILE* OpenText(std::string_view text) {
  return fmemopen(const_cast<char*>(text.data()), text.size(), "r");
}

bool BeginsWith(const char* line, std::string_view word) {
  return std::string_view(line).substr(0, word.size()) == word;
}

Recorded ReadPlainly(FILE* in) {
  Recorded recorded;
  unsigned long long id = 0;
  unsigned long long number = 0;
  char line[1024];
  while (recorded.whole && fgets(line, sizeof line, in) != nullptr) {
    if (BeginsWith(line, "subvol")) {
      recorded.whole = sscanf(line, "subvol(%llu) %llu bytes", &id, &number) >= 1;
      if (recorded.whole) recorded.Enter(id, number);
    } else if (BeginsWith(line, "exclusive")) {
      recorded.whole = sscanf(line, "exclusive %llu bytes", &number) >= 1;
      if (recorded.whole) recorded.estimated = number;
    } else if (BeginsWith(line, "processed")) {
      recorded.whole = sscanf(line, "processed %llu bytes", &number) >= 1;
      if (recorded.whole) recorded.processed = number;
    }
  }
  return recorded;
}

std::optional<unsigned long long> Attribute(TaskStatus& status, TASKSTATUS_ATTR attr) {
  std::string text;
  if (status.GetStatusAttr(attr, text) != RESULT_OK) return std::nullopt;
  return std::stoull(text);
}

}  // namespace

FUZZ_TARGET(command_output) {
  if (input.empty()) return;  // no stream can be made of nothing
  TaskStatus status;
  FUZZ_LAW(status.Init("fuzz", /*create=*/false));
  PutFile(TaskStatus::GetFilePath("fuzz"), "{}");
  FUZZ_LAW(TaskResult::CleanFile("fuzz"));
  FILE* const plain = OpenText(input);
  const Recorded expected = ReadPlainly(plain);
  fclose(plain);

  std::string message;
  FILE* const in = OpenText(input);
  const int verdict = SnapUsageCalculator::ParseCmdFp("fuzz", in, message, nullptr);
  fclose(in);
  FUZZ_LAW(verdict == (expected.whole ? FP_PARSE_OK : FP_PARSE_FAIL));
  FUZZ_LAW(Attribute(status, TASKSTATUS_ATTR_ESTIMATED_IN_BYTES) == expected.estimated);
  FUZZ_LAW(Attribute(status, TASKSTATUS_ATTR_PROCESSED_IN_BYTES) == expected.processed);

  Numbers bytes;
  Numbers ids;
  const int read = TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "fuzz", bytes);
  FUZZ_LAW(TaskResult::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "fuzz", ids) == read);
  FUZZ_LAW((read == RESULT_OK) == expected.whole);
  if (expected.whole) FUZZ_LAW(bytes == expected.bytes && ids == expected.subvolIDs);
}
