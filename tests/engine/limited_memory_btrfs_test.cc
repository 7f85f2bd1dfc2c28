// Small limits on memory on a real file system: they have their effect, and what is said to be
// exact is.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/falloc.h>
#include <sys/mount.h>
#include <unistd.h>

#include <memory>
#include <sstream>

#include "tests/engine/forecast_run.h"
#include "tests/engine/history.h"
#include "tests/support/btrfs_ioctls.h"

using namespace ZorvTest;

namespace {

using Ids = std::vector<unsigned long long>;

// A file system, the same for all tests, on which every run of neighbouring snapshots holds an
// extent that nobody else does.
class LimitedMemory : public testing::Test {
 protected:
  static constexpr unsigned kSnapshots = 180;
  static constexpr off_t kExtent = 4096;

  static void SetUpTestSuite() {
    volume_ = std::make_unique<BtrfsVolume>(kMount, Options(1024, {"-n", "4096"}));
    volume_->Subvolume("live");
    const UniqueFd file = Open(volume_->Path("live/file"), O_RDWR | O_CREAT);
    for (unsigned now = 0; now < kSnapshots; ++now) {
      for (unsigned end = now + 1; end <= kSnapshots; ++end)
        ASSERT_EQ(0, fallocate(file.Get(), 0, Place(now, end), kExtent));
      for (unsigned begin = 0; begin < now; ++begin)
        ASSERT_EQ(0, fallocate(file.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                               Place(begin, now), kExtent));
      const std::string path = volume_->Path("snap" + std::to_string(now));
      CreateSnapshot(volume_->Path("live"), path, /*readOnly=*/true);
      ids_.push_back(RootId(path));
    }
    MustRun({"sync", "-f", kMount});
  }
  static void TearDownTestSuite() {
    volume_.reset();
    ids_.clear();
  }

  // Where the extent lies that the snapshots `begin` to `end` - 1 hold.
  static off_t Place(unsigned begin, unsigned end) {
    return static_cast<off_t>(begin * (kSnapshots + 1) + end) * kExtent;
  }

  // Asks for all snapshots.
  static EngineRun Ask(std::vector<std::string> args) {
    args.insert(args.end(), {"-vm", "-r", kMount});
    for (const unsigned long long id : ids_) args.push_back(std::to_string(id));
    return RunEngine(args);
  }

  static inline std::unique_ptr<BtrfsVolume> volume_;
  static inline Ids ids_;
};

// The tables that a run printed.
struct Table {
  struct Held {
    unsigned long long data = 0, metadata = 0;
    auto operator<=>(const Held&) const = default;
  };
  friend void PrintTo(const Held& held, std::ostream* out) {
    *out << "data " << held.data << " metadata " << held.metadata;
  }
  std::map<Ids, Held> sets;                 // given one by one
  std::map<unsigned long long, Held> sums;  // of the others, by their last member
};

Table TableOf(const EngineRun& run) {
  Table table;
  Ids* open = nullptr;
  Ids members;
  Table::Held held;
  const auto close = [&] {
    if (open != nullptr) table.sets[members] = held;
    open = nullptr;
  };
  const auto addMembers = [&](const std::string& line) {
    std::istringstream words(line.substr(line.find(" of ") + 4));
    for (unsigned long long id; words >> id;) members.push_back(id);
  };
  for (const std::string& line : run.lines) {
    if (line.rfind("set also of ", 0) == 0) {
      addMembers(line);
      continue;
    }
    close();
    unsigned long long last = 0;
    if (sscanf(line.c_str(), "set data %llu metadata %llu of", &held.data, &held.metadata) == 2) {
      members.clear();
      open = &members;
      addMembers(line);
    } else if (sscanf(line.c_str(), "sets data %llu metadata %llu with last %llu", &held.data,
                      &held.metadata, &last) == 3) {
      table.sums[last] = held;
    }
  }
  return table;
}

}  // namespace

TEST_F(LimitedMemory, IncompleteTableIsExactInWhatItSaysToBe) {
  const EngineRun whole = Ask({"--table"});
  ASSERT_EQ(0, whole.status) << whole.err;
  ASSERT_EQ("table complete", whole.lines.back());
  const EngineRun cut = Ask({"--table", "--table-memory", "1", "--forecast", Joined(ids_)});
  ASSERT_EQ(0, cut.status) << cut.err;
  EXPECT_EQ(0u, cut.lines.back().rfind("table incomplete: ", 0));

  const Table all = TableOf(whole);
  const Table some = TableOf(cut);
  EXPECT_TRUE(all.sums.empty());
  ASSERT_FALSE(some.sums.empty());
  ASSERT_FALSE(some.sets.empty());
  EXPECT_GE(all.sets.size(), kSnapshots * (kSnapshots - 1) / 2);
  for (const auto& [members, held] : some.sets) EXPECT_EQ(held, all.sets.at(members));

  std::map<unsigned long long, Table::Held> rest;
  for (const auto& [members, held] : all.sets) {
    if (some.sets.count(members) != 0) continue;
    rest[members.back()].data += held.data;
    rest[members.back()].metadata += held.metadata;
  }
  for (const unsigned long long id : ids_)
    EXPECT_EQ(rest[id], some.sums.count(id) != 0 ? some.sums.at(id) : Table::Held()) << id;
}

TEST_F(LimitedMemory, IncompleteTableComesWithTheKernelsSizesAndPlan) {
  const EngineRun run = Ask({"--table", "--table-memory", "1", "--forecast", Joined(ids_)});
  ASSERT_EQ(0, run.status) << run.err;
  ASSERT_EQ(0u, run.lines.back().rfind("table incomplete: ", 0));
  BtrfsVolume::IdSets begins;
  for (const long count : {2l, 7l, 60l, 179l})
    begins.emplace_back(ids_.begin(), ids_.begin() + count);
  const KernelSizes kernel = volume_->KernelExclusiveOf(begins);
  for (const unsigned long long id : ids_) EXPECT_EQ(kernel.exclusive.at(id), run.sizes.at(id));
  const std::vector<ForecastStep> steps = StepsOf(run);
  ASSERT_EQ(ids_.size(), steps.size());
  for (size_t i = 0; i < begins.size(); ++i) {
    const ForecastStep& last = steps[begins[i].size() - 1];
    EXPECT_EQ(kernel.sets[i], last.soFarData + last.soFarMetadata) << begins[i].size();
  }
}

// /var/tmp without room: whoever keeps to the limit needs it, whoever has memory does not.
TEST_F(LimitedMemory, ArraysBeyondTheLimitLieInFiles) {
  const EngineRun plenty = Ask({"--method=scan"});
  ASSERT_EQ(0, plenty.status) << plenty.err;
  const EngineRun little = Ask({"--method=scan", "--memory", "1"});
  EXPECT_EQ(0, little.status) << little.err;
  EXPECT_EQ(plenty.sizes, little.sizes);

  ASSERT_EQ(0, mount("tmpfs", "/var/tmp", "tmpfs", 0, "size=16k"));
  const EngineRun enough = Ask({"--method=scan"});
  const EngineRun full = Ask({"--method=scan", "--memory", "1"});
  ASSERT_EQ(0, umount("/var/tmp"));
  EXPECT_EQ(plenty.sizes, enough.sizes) << enough.err;
  EXPECT_EQ(1, full.status);
  EXPECT_EQ(0u, full.err.rfind("ERROR: there is no room for ", 0)) << full.err;
  EXPECT_TRUE(full.sizes.empty());
}
