// Vectors whose count asks for more memory than there is.
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <new>
#include <vector>

#include "tests/support/sanitizer.h"
#include "tests/utils/task_files.h"
#include "zorvbtrfssnapusage/task_result.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

using Values = std::vector<unsigned long long>;

constexpr char kUnit[] = "utils/task_result";
const std::string kFile = "/run/zorvbtrfssnapusage/task_result/t1.result";

// Requests above this many bytes are refused, as by a machine without memory.
size_t refusedAbove = ~size_t{0};
int refused = 0;

// Elements of a quarter of the machine's memory, the most that are read.
uint64_t MostElements() {
  const auto pages = static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES));
  return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 4 / 8;
}

// 2^20 elements are asked for; one is there.
class TaskResultMemory : public TaskFiles {
 protected:
  TaskResultMemory() { WriteCount(1 << 20); }
  ~TaskResultMemory() override { refusedAbove = ~size_t{0}; }

  static void WriteCount(uint64_t count) {
    const uint64_t words[] = {count, 1};
    WriteFile(kFile, std::string(reinterpret_cast<const char*>(words), sizeof words));
  }

  void ExpectOneMessage() {
    EXPECT_EQ(1,
              log.CountExact(LOG_ERR, kUnit, "Some errors occur on input stream, file: " + kFile))
        << log.Dump();
  }
};

}  // namespace

void* operator new(size_t size) {
  if (size > refusedAbove) ++refused;
  void* memory = size > refusedAbove ? nullptr : malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

TEST_F(TaskResultMemory, RefusedAllocationFails) {
  Values values;
  refused = 0;
  refusedAbove = 1 << 20;
  EXPECT_EQ(1, TaskResult::ReadVtr(kFile, values));
  refusedAbove = ~size_t{0};
  EXPECT_EQ(1, refused);
  ExpectOneMessage();
}

// A machine with enough memory would otherwise fill it from a file of a few bytes.
TEST_F(TaskResultMemory, CountOfTwoToTheThirtySecondAsksForNone) {
  WriteFile(kFile, std::string("\0\0\0\0\1\0\0\0\1\0\0\0\0\0\0\0", 16));
  Values values;
  refused = 0;
  refusedAbove = 1 << 20;
  EXPECT_EQ(1, TaskResult::ReadVtr(kFile, values));
  refusedAbove = ~size_t{0};
  EXPECT_EQ(0, refused);
  ExpectOneMessage();
}

// Linux promises memory that is not there, and a file of 16 bytes took all of it.
TEST_F(TaskResultMemory, CountBeyondAQuarterOfTheMemoryAsksForNone) {
  WriteCount(MostElements() + 1);
  Values values;
  refused = 0;
  refusedAbove = 1 << 20;
  EXPECT_EQ(1, TaskResult::ReadVtr(kFile, values));
  refusedAbove = ~size_t{0};
  EXPECT_EQ(0, refused);
  ExpectOneMessage();
}

TEST_F(TaskResultMemory, RefusedAllocationOfATasksResultFails) {
  Values values;
  refusedAbove = 1 << 20;
  EXPECT_EQ(1, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "t1", values));
  refusedAbove = ~size_t{0};
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "GetResultVtr", getpid(), "t1",
                             "Failed to read task result to file: "
                             "/run/zorvbtrfssnapusage/task_result/t1.result, resultOpt: 1"))
      << log.Dump();
}

TEST_F(TaskResultMemory, AddressSpaceLimitFails) {
  NEEDS_MEMORY_LIMITS();
  WriteCount(MostElements());
  EXPECT_EQ(1, InChild([] {
              const rlimit limit = {8 * MostElements(), 8 * MostElements()};
              if (setrlimit(RLIMIT_AS, &limit) != 0) return 2;
              Values values;
              return TaskResult::ReadVtr(kFile, values);
            }));
  ExpectOneMessage();
}

TEST_F(TaskResultMemory, CountThatFitsIsReadUnderTheSameLimit) {
  refusedAbove = 1 << 20;
  WriteFile(kFile, std::string("\2\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0", 16));
  Values values;
  EXPECT_EQ(0, TaskResult::ReadVtr(kFile, values));
  EXPECT_EQ((Values{1, 1}), values);
}
