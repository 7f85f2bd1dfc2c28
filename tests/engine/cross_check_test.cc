// What the cross-check compares: whole tables, not exclusive sizes alone.
#include "engine/size/cross_check.h"

#include <gtest/gtest.h>

#include "engine/size/newest_state_run.h"
#include "tests/engine/mini_filesystem.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

// A method that gives a table about subvolumes 257, 258 and 259, each of which holds 4096 bytes
// alone; `rows` are those of several members.
class Told : public ExclusiveSizeMethod {
 public:
  explicit Told(const std::vector<SetRow>& rows) {
    table_.ids = {257, 258, 259};
    table_.redundancies = {{}};
    for (uint32_t i = 0; i < 3; ++i) table_.rows.push_back({{i}, true, {{4096, 0}}});
    table_.rows.insert(table_.rows.end(), rows.begin(), rows.end());
  }
  Status Run(CommittedTrees&, const SizeRequest&, SizeProgress&, SizeTable* out) override {
    *out = table_;
    return Status();
  }

 private:
  SizeTable table_;
};

SetRow Row(std::vector<uint32_t> members, HeldBytes bytes, bool complete = true) {
  return {std::move(members), complete, {bytes}};
}

// What a cross-check of two tables says.
std::string Compared(const std::vector<SetRow>& rows, const std::vector<SetRow>& again) {
  Told first(rows);
  Told second(again);
  CrossCheck both(first, second);
  MiniFilesystem mini;
  mini.Write();
  SizeProgress progress;
  SizeResult result;
  return RunOnNewestState(
             mini, both, {{257, 258, 259}}, progress, [](const std::string&) {}, &result)
      .Text();
}

constexpr char kEnd[] = "; run btrfs check, and report this when it finds nothing";

}  // namespace

TEST(CrossCheckTables, AgreeWhateverTheirOrderAndEmptyRows) {
  EXPECT_EQ("", Compared({Row({0, 1}, {0, 1}), Row({0, 2}, {8192, 1}), Row({1, 2}, {0, 0})},
                         {Row({0, 2}, {8192, 1}), Row({0, 1}, {0, 1})}));
}

TEST(CrossCheckTables, DisagreeOnWhatComesFree) {
  EXPECT_EQ(
      std::string("two ways of counting disagree on what comes free with subvolume 258") + kEnd,
      Compared({Row({0, 1}, {4096, 0})}, {Row({0, 1}, {4096, 16384})}));
}

TEST(CrossCheckTables, DisagreeOnWhoHoldsSomethingTogether) {
  EXPECT_EQ(
      std::string("two ways of counting disagree on what sets of subvolumes hold together") + kEnd,
      Compared({Row({0, 2}, {4096, 0})}, {Row({1, 2}, {4096, 0})}));
}

TEST(CrossCheckTables, AreComparedAsFarAsTheyAreKnown) {
  EXPECT_EQ("", Compared({Row({0, 2}, {4096, 0})}, {Row({2}, {4096, 0}, /*complete=*/false)}));
}
