// main of every test program: enters the private world, unless it is in one, then runs the tests.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "tests/support/left_over.h"
#include "tests/support/sandbox.h"

namespace {

// Puts the reason of a skipped test into the report, where GoogleTest leaves it out.
class SkipReasons : public testing::EmptyTestEventListener {
  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (result.skipped()) testing::Test::RecordProperty("skip_reason", result.message());
  }
};

// In CI a skipped test is a failure: what was not tried is not known to work.
class SkipIsFailure : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& info) override {
    if (info.result()->Skipped()) {
      printf("[  FAILED  ] %s.%s was skipped, and CI=true\n", info.test_suite_name(), info.name());
      skipped_ = true;
    }
  }
  void OnTestProgramEnd(const testing::UnitTest&) override {
    if (skipped_) exit(1);
  }
  bool skipped_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new SkipReasons);
  testing::UnitTest::GetInstance()->listeners().Append(new ZorvTest::LeftOverIsFailure);
  const char* ci = getenv("CI");
  if (ci != nullptr && std::string(ci) == "true")
    testing::UnitTest::GetInstance()->listeners().Append(new SkipIsFailure);
  if (testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  if (ZorvTest::IsInSandbox()) return RUN_ALL_TESTS();
  return ZorvTest::RunInSandbox({ZORV_BINARY_DIR}, [] { return RUN_ALL_TESTS(); });
}
