// What is said about work that takes a while.
#include "cli/patience.h"

#include <gtest/gtest.h>

#include "cli/standard_streams.h"
#include "tests/support/command.h"

using namespace ZorvSnapUsage;

TEST(PatienceTest, IsSaidOnceOrNotAtAll) {
  std::string said;
  gListener = [&said](const std::string& text) { said += text; };
  Patience quiet("keeping quiet", /*quiet=*/true), spoken("counting");
  EXPECT_TRUE(ZorvTest::WaitUntil([&] {
    quiet.Tick();
    spoken.Tick();
    return !said.empty();
  }));
  quiet.Tick();
  spoken.Tick();
  gListener = nullptr;
  EXPECT_EQ("zorv-snapusage: counting (Ctrl-C ends it)\n", said);
}
