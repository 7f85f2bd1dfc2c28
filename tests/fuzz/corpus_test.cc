// Every fuzz target over its seeds, and over some hundred changes of each: what libFuzzer has
// found, and could find soon, stays found in every run, without clang.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mman.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <set>

#include "tests/fuzz/engine_seeds.h"
#include "tests/fuzz/target.h"
#include "tests/support/command.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

const std::string kCorpus = ZORV_SOURCE_DIR "/tests/fuzz/corpus/";

// A real file system with some files.
std::string MakeImage() {
  const std::string image = "/tmp/seeds.img";
  MustRun({"truncate", "-s", "128M", image});
  MustRun({"mkfs.btrfs", "-q", "-n", "4096", "--rootdir", ZORV_SOURCE_DIR "/docs", image});
  return image;
}

// Name and bytes of all seeds of a target: the kept files, then those that are made.
std::vector<std::pair<std::string, std::string>> SeedsOf(const std::string& target) {
  static const SeedsByTarget made = MakeEngineSeeds(MakeImage());
  std::vector<std::pair<std::string, std::string>> seeds;
  if (fs::exists(kCorpus + target))
    for (const auto& file : fs::directory_iterator(kCorpus + target))
      seeds.push_back({file.path().filename(), FileContent(file.path())});
  std::sort(seeds.begin(), seeds.end());
  if (made.count(target) == 0) return seeds;
  size_t number = 0;
  for (const std::string& seed : made.at(target))
    seeds.push_back({"made-" + std::to_string(++number), seed});
  return seeds;
}

// Changes bytes where something stands, cuts, doubles and exchanges parts.
std::string Changed(std::string text, std::mt19937* random) {
  const auto below = [&](size_t end) { return end == 0 ? 0 : (*random)() % end; };
  for (size_t changes = 1 + below(3); changes > 0; --changes) {
    size_t at = below(text.size());
    for (int tries = 0; tries < 8 && at < text.size() && text[at] == 0; ++tries)
      at = below(text.size());
    static const char kBytes[] = {'\0', '\1', '\x7f', '\xff', '\n', '"',
                                  '0',  '9',  '-',    '(',    '{',  ','};
    switch (below(6)) {
      case 0:
        if (at < text.size()) text[at] = static_cast<char>(text[at] ^ 1 << below(8));
        break;
      case 1:
        if (at < text.size()) text[at] = kBytes[below(sizeof kBytes)];
        break;
      case 2:
        if (at < text.size()) text[at] = static_cast<char>(text[at] + (below(2) == 0 ? 1 : -1));
        break;
      case 3:
        text.resize(below(4) == 0 ? at : text.size() - std::min<size_t>(text.size(), below(4)));
        break;
      case 4:
        text.insert(at, text.substr(below(text.size() + 1), below(24)));
        break;
      default:
        text.insert(at, 1 + below(22), kBytes[below(sizeof kBytes)]);
    }
  }
  return text;
}

// The input that is being taken, told by the child that may not live to say it.
struct Current {
  char seed[256];
  int change;  // 0: the seed as it is
};

// Gives a target all its seeds and `changes` changes of each.
void RunSeeds(const std::string& target, int changes) {
  const auto seeds = SeedsOf(target);
  ASSERT_FALSE(seeds.empty());
  auto* const current = static_cast<Current*>(
      mmap(nullptr, sizeof(Current), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(current));
  const int status = InChild([&]() noexcept {  // what is thrown ends the child alone
    const FuzzFunction take = FuzzTargets().at(target);
    for (const auto& [name, bytes] : seeds) {
      snprintf(current->seed, sizeof current->seed, "%s", name.c_str());
      std::mt19937 random(static_cast<unsigned>(std::hash<std::string>()(bytes)));
      for (current->change = 0; current->change <= changes; ++current->change)
        take(current->change == 0 ? bytes : Changed(bytes, &random));
    }
    return 0;
  });
  EXPECT_EQ(0, status) << target << ": seed " << current->seed << ", change " << current->change;
  munmap(current, sizeof(Current));
}

}  // namespace

TEST(FuzzCorpus, ChunkItems) { RunSeeds("chunk_items", 2000); }
TEST(FuzzCorpus, CommandOutput) { RunSeeds("command_output", 100); }
TEST(FuzzCorpus, DamagedBlocks) { RunSeeds("damaged_blocks", 4); }
TEST(FuzzCorpus, ExtentItems) { RunSeeds("extent_items", 1000); }
TEST(FuzzCorpus, Fstab) { RunSeeds("fstab", 100); }
TEST(FuzzCorpus, JsonStore) { RunSeeds("json_store", 200); }
TEST(FuzzCorpus, NameItems) { RunSeeds("name_items", 2000); }
TEST(FuzzCorpus, PlainJson) { RunSeeds("plain_json", 2000); }
TEST(FuzzCorpus, Reminder) { RunSeeds("reminder", 100); }
TEST(FuzzCorpus, ResultVector) { RunSeeds("result_vector", 200); }
TEST(FuzzCorpus, RootItems) { RunSeeds("root_items", 300); }
TEST(FuzzCorpus, ShareMap) { RunSeeds("share_map", 100); }
TEST(FuzzCorpus, ShareStatus) { RunSeeds("share_status", 50); }
TEST(FuzzCorpus, SharesFile) { RunSeeds("shares_file", 1000); }
TEST(FuzzCorpus, ShownText) { RunSeeds("shown_text", 1000); }
TEST(FuzzCorpus, SnapperInfo) { RunSeeds("snapper_info", 1000); }
TEST(FuzzCorpus, SnapshotName) { RunSeeds("snapshot_name", 2000); }
TEST(FuzzCorpus, Superblock) { RunSeeds("superblock", 1000); }
TEST(FuzzCorpus, TaskStatus) { RunSeeds("task_status", 50); }
TEST(FuzzCorpus, Testparm) { RunSeeds("testparm", 1000); }
TEST(FuzzCorpus, TimeSelector) { RunSeeds("time_selector", 2000); }
TEST(FuzzCorpus, TimeText) { RunSeeds("time_text", 1000); }
TEST(FuzzCorpus, TreeBlock) { RunSeeds("tree_block", 100); }

// A target that nobody runs here, or a folder of seeds without one, would be missed by nobody.
TEST(FuzzCorpus, EveryTargetHasACase) {
  std::set<std::string> cases;
  const testing::TestSuite* const suite = testing::UnitTest::GetInstance()->current_test_suite();
  for (int i = 0; i < suite->total_test_count(); ++i) {
    std::string name;
    for (const char* c = suite->GetTestInfo(i)->name(); *c != '\0'; ++c) {
      if (isupper(*c) && !name.empty()) name.push_back('_');
      name.push_back(static_cast<char>(tolower(*c)));
    }
    cases.insert(name);
  }
  for (const auto& [name, take] : FuzzTargets()) EXPECT_EQ(1u, cases.count(name)) << name;
  for (const auto& folder : fs::directory_iterator(kCorpus))
    EXPECT_EQ(1u, FuzzTargets().count(folder.path().filename())) << folder.path();
}
