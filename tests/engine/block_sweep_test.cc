// Sweeps over many blocks: all profiles, mirrors, bad blocks, failing visitors, both ways to read.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "engine/io/block_reader.h"
#include "engine/ondisk/checksum.h"
#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr uint64_t kMiB = 1 << 20;
constexpr uint64_t kChunkBytes = 8 * kMiB;

// A chunk of any profile at logical 0 over four devices in memory; each device's part begins at 0.
class BlockReaderSweep : public testing::Test {
 protected:
  BlockReaderSweep() {
    for (uint64_t devid = 1; devid <= 4; ++devid)
      memory_.push_back(&AddMemoryDevice(&devices_, devid, 2 * kChunkBytes));
  }

  void UseProfile(uint64_t profile, uint64_t stripeCount) {
    std::vector<Place> stripes;
    for (uint64_t devid = 1; devid <= stripeCount; ++devid)
      stripes.push_back(profile == kDup ? Place{1, (devid - 1) * kChunkBytes} : Place{devid, 0});
    const Bytes chunk = MakeChunkOn(kChunkBytes, kChunkMetadata | profile, stripes);
    chunks_ = ChunkMap();
    ASSERT_EQ("", chunks_.Add(ChunkKey(0), View(chunk)).Text());
    reader_.UseChunks(chunks_);
  }

  // Puts `count` leaves, every `step` blocks, wherever the chunk has them; wants them back to
  // front.
  void PutLeaves(uint64_t count, uint64_t step) {
    pointers_.clear();
    for (uint64_t i = 0; i < count; ++i) {
      const uint64_t bytenr = i * step * kNodeSize;
      const Bytes leaf = MakeLeaf(bytenr, {{{bytenr, 1, 0}, Bytes(8, 'x')}});
      for (const Place& place : chunks_.Find(bytenr, kNodeSize))
        memory_[place.devid - 1]->Put(place.offset, leaf);
      pointers_.insert(pointers_.begin(), {bytenr, kGeneration, 0, Key{bytenr, 1, 0}});
    }
  }

  // Spoils the copy `which` of the block of the pointer at `index`.
  void Spoil(size_t index, size_t which) {
    const Place place = chunks_.Find(pointers_[index].bytenr, kNodeSize).begin()[which];
    memory_[place.devid - 1]->Put(place.offset, Bytes(kNodeSize, 0xEE));
  }

  Status Sweep() {
    return SweepWith([](size_t, const TreeBlockView&) { return Status(); });
  }

  // Sweeps; `seen_` and `bad_` are what came, `then` is what the visitor says.
  Status SweepWith(const BlockReader::SweepVisitor& then) {
    seen_.clear();
    bad_.clear();
    std::mutex mutex;
    return reader_.Sweep(
        pointers_,
        [&](size_t index, const TreeBlockView& block) {
          EXPECT_EQ(pointers_[index].bytenr, block.Header().bytenr.Get());
          {
            const std::lock_guard<std::mutex> lock(mutex);
            EXPECT_TRUE(seen_.insert(index).second);
          }
          return then(index, block);
        },
        &bad_);
  }

  int Reads() const {
    int reads = 0;
    for (const MemoryDevice* memory : memory_) reads += memory->Reads();
    return reads;
  }

  DeviceSet devices_;
  std::vector<MemoryDevice*> memory_;
  ReadMeter meter_;
  ChunkMap chunks_;
  BlockReader reader_{devices_, {kNodeSize, kCrc32c}, meter_};
  std::vector<BlockPointer> pointers_;
  std::set<size_t> seen_;
  std::vector<BadBlock> bad_;
};

struct Profile {
  const char* name;
  uint64_t bit;
  uint64_t stripes;
  size_t copies;
};
constexpr Profile kProfiles[] = {
    {"single", 0, 1, 1},     {"dup", kDup, 2, 2},         {"raid0", kRaid0, 4, 1},
    {"raid1", kRaid1, 2, 2}, {"raid10", kRaid10, 4, 2},   {"raid5", kRaid5, 4, 1},
    {"raid6", kRaid6, 4, 1}, {"raid1c3", kRaid1c3, 3, 3}, {"raid1c4", kRaid1c4, 4, 4},
};

}  // namespace

TEST_F(BlockReaderSweep, GivesEachBlockOnceOnEachProfile) {
  for (const Profile& profile : kProfiles) {
    SCOPED_TRACE(profile.name);
    UseProfile(profile.bit, profile.stripes);
    for (const uint64_t step : {1, 2, 5}) {
      PutLeaves(400, step);
      EXPECT_EQ("", Sweep().Text());
      EXPECT_EQ(pointers_.size(), seen_.size());
      EXPECT_TRUE(bad_.empty());
      EXPECT_EQ(meter_.total, meter_.processed);
    }
  }
  EXPECT_EQ(std::size(kProfiles) * 3 * 400, meter_.counters.blocksVerified);
  EXPECT_EQ(0u, meter_.counters.mirrorsUsed);
}

TEST_F(BlockReaderSweep, UsesTheLastCopyThatIsSound) {
  for (const Profile& profile : kProfiles) {
    SCOPED_TRACE(profile.name);
    UseProfile(profile.bit, profile.stripes);
    PutLeaves(400, 1);
    for (size_t copy = 0; copy + 1 < profile.copies; ++copy)
      for (const size_t index : {0, 7, 8, 399}) Spoil(index, copy);
    const uint64_t before = meter_.counters.mirrorsUsed;
    EXPECT_EQ("", Sweep().Text());
    EXPECT_EQ(400u, seen_.size());
    EXPECT_TRUE(bad_.empty());
    EXPECT_EQ(profile.copies > 1 ? 4u : 0u, meter_.counters.mirrorsUsed - before);
  }
}

TEST_F(BlockReaderSweep, NamesBadBlocksAndGoesOn) {
  for (const Profile& profile : kProfiles) {
    SCOPED_TRACE(profile.name);
    UseProfile(profile.bit, profile.stripes);
    PutLeaves(400, 1);
    for (size_t copy = 0; copy < profile.copies; ++copy)
      for (const size_t index : {8, 0, 399, 7}) Spoil(index, copy);
    EXPECT_EQ("", Sweep().Text());
    EXPECT_EQ(396u, seen_.size());
    std::vector<size_t> indices;
    for (const BadBlock& bad : bad_) {
      indices.push_back(bad.index);
      EXPECT_EQ(Status::kBadBlock, bad.why.GetKind());
      EXPECT_EQ("tree block " + std::to_string(pointers_[bad.index].bytenr) +
                    " (level 0, generation 77) cannot be used: its checksum is wrong",
                bad.why.Text());
    }
    EXPECT_EQ((std::vector<size_t>{0, 7, 8, 399}), indices);
    EXPECT_EQ(meter_.total, meter_.processed);
  }
}

TEST_F(BlockReaderSweep, NamesABlockThatNoChunkHolds) {
  UseProfile(0, 1);
  PutLeaves(20, 1);
  pointers_[3].bytenr = 64 * kMiB;
  EXPECT_EQ("", Sweep().Text());
  ASSERT_EQ(1u, bad_.size());
  EXPECT_EQ(3u, bad_[0].index);
  EXPECT_EQ(19u, seen_.size());
}

// One place of a device that cannot be read costs the blocks there, not those of the same request.
TEST_F(BlockReaderSweep, ReadsTheOtherBlocksOfARequestThatFails) {
  UseProfile(0, 1);
  PutLeaves(100, 1);
  memory_[0]->Break(pointers_[40].bytenr);
  EXPECT_EQ("", Sweep().Text());
  ASSERT_EQ(1u, bad_.size());
  EXPECT_EQ(40u, bad_[0].index);
  EXPECT_EQ("tree block 241664 (level 0, generation 77) cannot be used: Input/output error",
            bad_[0].why.Text());
  EXPECT_EQ(99u, seen_.size());
}

TEST_F(BlockReaderSweep, EndsAtAMissingDevice) {
  UseProfile(kRaid0, 4);
  PutLeaves(100, 1);
  devices_.AddMissing(3, "");
  const Status swept = Sweep();
  EXPECT_EQ(Status::kNoDevice, swept.GetKind());
  EXPECT_EQ(0u, swept.Text().find("device 3 is missing and tree block ")) << swept.Text();
}

// The place of a block whose state is over holds a block of a later commit, and so do its mirrors:
// they are not asked.  What is newer than its parent says, but not newer than the state, is damage.
TEST_F(BlockReaderSweep, DoesNotLookForCopiesOfAReusedBlock) {
  const struct {
    const char* name;
    uint64_t state;
    int copiesRead;
  } kCases[] = {{"reused", kGeneration, 0}, {"damaged", kGeneration + 1, 2}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    UseProfile(kRaid1, 2);
    PutLeaves(1, 1);
    Bytes later = MakeLeaf(0, {});
    HeaderOf(&later).generation.Set(kGeneration + 1);
    Seal(&later);
    for (const Place& place : chunks_.Find(0, kNodeSize))
      memory_[place.devid - 1]->Put(place.offset, later);
    reader_.UseState(c.state);
    const int before = Reads();
    ASSERT_EQ("", Sweep().Text());
    EXPECT_EQ(1 + c.copiesRead, Reads() - before);
    ASSERT_EQ(1u, bad_.size());
    TreeBlockPtr block;
    EXPECT_EQ(Status::kBadBlock, reader_.Read(pointers_[0], &block).GetKind());
    EXPECT_EQ(1 + c.copiesRead + std::max(1, c.copiesRead), Reads() - before);
  }
}

TEST_F(BlockReaderSweep, ReadsMirrorsOfAMissingDevice) {
  UseProfile(kRaid1, 2);
  PutLeaves(100, 1);
  devices_.AddMissing(1, "");
  EXPECT_EQ("", Sweep().Text());
  EXPECT_EQ(100u, seen_.size());
  EXPECT_EQ(100u, meter_.counters.mirrorsUsed);
}

TEST_F(BlockReaderSweep, EndsAtTheVisitorsFailure) {
  UseProfile(0, 1);
  PutLeaves(1000, 2);
  const Status swept = SweepWith([](size_t index, const TreeBlockView&) {
    return index == 700 ? Status::Failed("enough") : Status();
  });
  EXPECT_EQ("enough", swept.Text());
  EXPECT_LT(seen_.size(), 1000u);
  EXPECT_EQ("", Sweep().Text());  // and the reader is as good as before
  EXPECT_EQ(1000u, seen_.size());
}

TEST_F(BlockReaderSweep, TurnsWhatAVisitorThrowsIntoAFailure) {
  UseProfile(0, 1);
  for (const uint64_t count : {2, 1000}) {
    PutLeaves(count, 2);
    EXPECT_EQ("out of memory", SweepWith([](size_t, const TreeBlockView&) -> Status {
                                 throw std::bad_alloc();
                               }).Text());
    EXPECT_EQ("internal error: oh", SweepWith([](size_t, const TreeBlockView&) -> Status {
                                      throw std::runtime_error("oh");
                                    }).Text());
  }
}

TEST_F(BlockReaderSweep, TakesFromTheCacheWhatIsThere) {
  UseProfile(0, 1);
  PutLeaves(3, 2);
  for (const BlockPointer& pointer : pointers_) {
    TreeBlockPtr block;
    ASSERT_TRUE(reader_.Read(pointer, &block).Ok());
  }
  EXPECT_EQ(3, Reads());
  EXPECT_EQ("", Sweep().Text());
  EXPECT_EQ(3u, seen_.size());
  EXPECT_EQ(3, Reads());
}

TEST_F(BlockReaderSweep, KeepsNothing) {
  UseProfile(0, 1);
  PutLeaves(3, 2);
  ASSERT_EQ("", Sweep().Text());
  ASSERT_EQ("", Sweep().Text());
  EXPECT_EQ(6, Reads());
}

TEST_F(BlockReaderSweep, OfNothingIsDone) {
  EXPECT_EQ("", Sweep().Text());
  EXPECT_EQ(0u, meter_.total);
}

TEST_F(BlockReaderSweep, AcceptsABlockThatIsWantedTwice) {
  UseProfile(0, 1);
  PutLeaves(30, 1);
  const std::vector<BlockPointer> once = pointers_;
  pointers_.insert(pointers_.end(), once.begin(), once.end());
  EXPECT_EQ("", Sweep().Text());
  EXPECT_EQ(60u, seen_.size());
}

// The threads of a sweep meet: each visitor waits for the other.
TEST_F(BlockReaderSweep, VisitsOnSeveralThreadsAtOnce) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs two processors";
  UseProfile(0, 1);
  PutLeaves(1000, 2);
  std::mutex mutex;
  std::set<std::thread::id> threads;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  EXPECT_EQ("", SweepWith([&](size_t, const TreeBlockView&) {
                  for (bool met = false; !met;) {
                    {
                      const std::lock_guard<std::mutex> lock(mutex);
                      threads.insert(std::this_thread::get_id());
                      met = threads.size() >= 2;
                    }
                    if (std::chrono::steady_clock::now() > deadline)
                      return Status::Failed("nobody else came");
                    std::this_thread::yield();
                  }
                  return Status();
                }).Text());
}

TEST_F(BlockReaderSweep, ShowsItsProgressWhileItGoesOn) {
  UseProfile(0, 1);
  PutLeaves(1000, 2);
  uint64_t last = 0;
  std::mutex mutex;
  int rises = 0;
  ASSERT_EQ("", SweepWith([&](size_t, const TreeBlockView&) {
                  const std::lock_guard<std::mutex> lock(mutex);
                  const uint64_t now = meter_.processed;
                  EXPECT_LE(now, 1000u * kNodeSize);
                  rises += now > last ? 1 : 0;
                  last = std::max(last, now);
                  return Status();
                }).Text());
  EXPECT_GT(rises, 100);
  EXPECT_EQ(1000u * kNodeSize, meter_.processed);
}

TEST_F(BlockReaderSweep, CountsRequestsAndBytes) {
  UseProfile(0, 1);
  PutLeaves(256, 1);
  ASSERT_EQ("", Sweep().Text());
  EXPECT_EQ(256u * kNodeSize / kFlashShape.mostBytes, meter_.counters.requests);
  EXPECT_EQ(256u * kNodeSize, meter_.counters.bytesRead);
  EXPECT_EQ(static_cast<uint32_t>(ReadCounters::kThreads), meter_.counters.way);
}

// The head needs three milliseconds for each request; the first round finds that out.
TEST_F(BlockReaderSweep, ReadsThroughGapsOnADiskWhoseHeadTravels) {
  UseProfile(0, 1);
  memory_[0]->Rotate(std::chrono::milliseconds(3));
  ReadOptions oneHead;
  oneHead.readThreads = 1;
  BlockReader reader(devices_, {kNodeSize, kCrc32c}, meter_, oneHead);
  reader.UseChunks(chunks_);
  PutLeaves(400, 5);
  std::atomic<int> seen{0};
  const auto count = [&](size_t, const TreeBlockView&) { return ++seen, Status(); };
  ASSERT_EQ("", reader.Sweep(pointers_, count, &bad_).Text());
  EXPECT_EQ(400, seen);
  EXPECT_TRUE(bad_.empty());
  EXPECT_LT(Reads(), 64 + 40);  // what is left after a round lies within 6.6 MiB
  ASSERT_EQ("", reader.Sweep(pointers_, count, &bad_).Text());
  EXPECT_EQ(800, seen);
  EXPECT_LT(Reads(), 64 + 40 + 40);  // and is not forgotten
}

TEST_F(BlockReaderSweep, ReadsNoGapsOnADiskThatIsOnlySaidToRotate) {
  UseProfile(0, 1);
  memory_[0]->Rotate(std::chrono::milliseconds(0));
  PutLeaves(400, 5);
  const auto pass = [](size_t, const TreeBlockView&) { return Status(); };
  // A machine that does other things for long looks like a head that travels, but not each time.
  bool withoutGaps = false;
  for (int attempt = 0; attempt < 20 && !withoutGaps; ++attempt) {
    const int before = Reads();
    BlockReader reader(devices_, {kNodeSize, kCrc32c}, meter_);
    reader.UseChunks(chunks_);
    ASSERT_EQ("", reader.Sweep(pointers_, pass, &bad_).Text());
    withoutGaps = Reads() == before + 400;
  }
  EXPECT_TRUE(withoutGaps);
}
