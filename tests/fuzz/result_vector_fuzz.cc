// A result vector with any content: what is read is what the format's words say.
#include <string.h>

#include <vector>

#include "tests/fuzz/target.h"
#include "zorvbtrfssnapusage/task_result.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kFile[] = "/tmp/vector";
constexpr unsigned long long kTooMany = 1ULL << 32;

// Counts that would fill the memory of the machine are no input here: what is missing of a short
// file is made up for, however much it is.
constexpr unsigned long long kMostCounted = 70'000;

// One element after the other into one buffer, as the format is described.
std::vector<unsigned long long> ReadPlainly(FuzzInput bytes, unsigned long long count) {
  std::vector<unsigned long long> values;
  unsigned long long element = 0;
  for (unsigned long long i = 0; i < count; ++i) {
    const std::string_view next = bytes.Bytes(8);
    memcpy(&element, next.data(), next.size());
    values.push_back(element);
  }
  return values;
}

}  // namespace

FUZZ_TARGET(result_vector) {
  FuzzInput bytes(input);
  const unsigned long long count = bytes.Number(8);
  if (count > kMostCounted && count < kTooMany) return;
  PutFile(kFile, input);

  std::vector<unsigned long long> values;
  const int code = TaskResult::ReadVtr(kFile, values);
  if (count >= kTooMany) {
    FUZZ_LAW(code == RESULT_FAILURE && values.empty());
    return;
  }
  FUZZ_LAW(code == RESULT_OK);
  FUZZ_LAW(values == ReadPlainly(bytes, count));

  FUZZ_LAW(TaskResult::WriteVtr(kFile, values) == RESULT_OK);
  std::vector<unsigned long long> again;
  FUZZ_LAW(TaskResult::ReadVtr(kFile, again) == RESULT_OK && again == values);
}
