// Every fuzz target under libFuzzer for its part of the time, from the seeds that are kept and
// those that are made. The programs are those of the preset `fuzz` (scripts/torture.sh builds
// them).
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "tests/support/command.h"
#include "tests/support/torture.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

const std::string kSources = ZORV_SOURCE_DIR "/tests/fuzz/";
const std::string kPrograms = ZORV_SOURCE_DIR "/build/fuzz/bin/fuzz_";
const std::string kFound = ZORV_BINARY_DIR "/fuzz-found/";  // outlives the private world
const std::string kSeeds = "/tmp/seeds/";

std::set<std::string> Targets() {
  constexpr std::string_view kEnd = "_fuzz.cc";
  std::set<std::string> targets;
  for (const auto& file : fs::directory_iterator(kSources)) {
    const std::string name = file.path().filename();
    if (name.ends_with(kEnd)) targets.insert(name.substr(0, name.size() - kEnd.size()));
  }
  return targets;
}

// Seeds of the engine's decoders, of a real file system among others.
void MakeSeeds() {
  MustRun({"truncate", "-s", "128M", "/tmp/seeds.img"});
  MustRun(
      {"mkfs.btrfs", "-q", "-n", "4096", "--rootdir", ZORV_SOURCE_DIR "/docs", "/tmp/seeds.img"});
  MustRun({kPrograms + "seeds", "/tmp/seeds.img", kSeeds});
}

// The last `count` lines, where the law, the input and the stack stand.
std::string End(const std::string& text, int count) {
  size_t at = text.size();
  for (; count >= 0 && at != std::string::npos && at > 0; --count) at = text.rfind('\n', at - 1);
  return at == std::string::npos ? text : text.substr(at);
}

// Runs a target; the number of its inputs.
unsigned long long RunTarget(const std::string& target, int seconds) {
  const std::string corpus = "/tmp/corpus/" + target;
  fs::create_directories(corpus);
  std::vector<std::string> argv = {kPrograms + target,
                                   "--here",
                                   "-max_total_time=" + std::to_string(seconds),
                                   "-timeout=60",
                                   "-print_final_stats=1",
                                   "-dict=" + kSources + "words.dict",
                                   "-artifact_prefix=" + kFound + target + "-",
                                   corpus};
  for (const std::string& seeds : {kSources + "corpus/" + target, kSeeds + target})
    if (fs::exists(seeds)) argv.push_back(seeds);
  const CommandResult run = Run(argv);
  EXPECT_EQ(0, run.status) << target << ": again with build/fuzz/bin/fuzz_" << target
                           << " FILE, the file that is named here:\n"
                           << End(run.err, 40);
  std::smatch inputs;
  if (!std::regex_search(run.err, inputs, std::regex("number_of_executed_units: *([0-9]+)")))
    return 0;
  return std::stoull(inputs[1]);
}

}  // namespace

TEST(Fuzz, NoInputBreaksALaw) {
  const std::set<std::string> targets = Targets();
  ASSERT_FALSE(targets.empty());
  for (const std::string& target : targets)
    ASSERT_TRUE(fs::exists(kPrograms + target))
        << "build it: cmake --preset fuzz && cmake --build --preset fuzz";
  fs::remove_all(kFound);
  fs::create_directories(kFound);
  MakeSeeds();
  const int seconds = std::max(1, static_cast<int>(Budget().Left() / targets.size()));
  for (const std::string& target : targets) {
    const unsigned long long inputs = RunTarget(target, seconds);
    EXPECT_GT(inputs, 0u) << target;
    Figure(target + " inputs", inputs);
  }
  Figure("targets", targets.size());
}
