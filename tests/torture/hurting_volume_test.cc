// A file system that hurts: disks that give errors, wrong bytes, old bytes or nothing, and changes
// of the file system itself in the middle of a run.  The number is right, or the error is clear.
#include "tests/torture/hurting_volume.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <zorvplatform/platc.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>

#include "engine/ondisk/tree_block.h"
#include "tests/engine/blocks.h"
#include "tests/engine/history.h"
#include "tests/support/platform_hook.h"
#include "tests/support/torture.h"
#include "tests/torture/lateness.h"
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::ShareSnapUsageCal;

namespace {

std::vector<std::string> Profile(const std::string& profile) {
  return {"-n", "4096", "-d", "single", "-m", profile};
}

const DiskLayout kLayouts[] = {
    {"Single", 1, Profile("single"), 1}, {"Dup", 1, Profile("dup"), 2},
    {"Raid1", 2, Profile("raid1"), 2},   {"Raid1c3", 3, Profile("raid1c3"), 3},
    {"Raid10", 4, Profile("raid10"), 2}, {"Raid0", 2, Profile("raid0"), 1},
    {"Raid5", 3, Profile("raid5"), 1},   {"Raid6", 4, Profile("raid6"), 1},
};

// The kinds of blocks that are read in different ways.
enum class Kind { kChunkTree, kRootTree, kExtentNode, kExtentLeaf, kSubvolumeNode, kSubvolumeLeaf };
constexpr Kind kKinds[] = {Kind::kChunkTree,  Kind::kRootTree,      Kind::kExtentNode,
                           Kind::kExtentLeaf, Kind::kSubvolumeNode, Kind::kSubvolumeLeaf};

Kind KindOf(const LiveBlock& block) {
  if (block.tree == 3) return Kind::kChunkTree;
  if (block.tree == 1) return Kind::kRootTree;
  if (block.tree == 2) return block.level > 0 ? Kind::kExtentNode : Kind::kExtentLeaf;
  return block.level > 0 ? Kind::kSubvolumeNode : Kind::kSubvolumeLeaf;
}

// What a test has done to copies of blocks.
class Wounds {
 public:
  explicit Wounds(HurtingVolume& volume) : volume_(volume) {}

  // Hurts one copy of a block.
  void Add(const LiveBlock& block, const LiveBlock::Copy& copy, DiskFault fault) {
    fault.begin = copy.offset;
    fault.size = volume_.NodeSize();
    const size_t number = volume_.Disk(copy.device).Add(fault);
    all_.push_back({&block, copy.device, copy.offset, number});
  }

  // Whether a copy of a block that is hurt has been read.
  bool Met() const {
    return std::ranges::any_of(all_, [this](const Wound& wound) { return HitsOf(wound) > 0; });
  }

  // Whether a text names one of the blocks.
  bool AreNamedIn(const std::string& text) const {
    return std::ranges::any_of(all_, [&](const Wound& wound) {
      return text.find("tree block " + std::to_string(wound.block->bytenr) + " ") !=
             std::string::npos;
    });
  }

  // Whether each block has a copy that is sound.
  bool CanBeHealed() const {
    std::map<uint64_t, size_t> hurt;
    for (const Wound& wound : all_) ++hurt[wound.block->bytenr];
    return std::ranges::all_of(
        all_, [&](const Wound& wound) { return hurt[wound.block->bytenr] < volume_.Copies(); });
  }

  std::string Text() const {
    std::string text;
    for (const Wound& wound : all_)
      text += "tree " + std::to_string(wound.block->tree) + " block " +
              std::to_string(wound.block->bytenr) + " disk " + std::to_string(wound.device + 1) +
              " at " + std::to_string(wound.offset) + " read " + std::to_string(HitsOf(wound)) +
              " times; ";
    return text;
  }

 private:
  struct Wound {
    const LiveBlock* block;
    size_t device;
    uint64_t offset;
    size_t number;
  };

  unsigned HitsOf(const Wound& wound) const {
    return volume_.Disk(wound.device).Hits(wound.number);
  }

  HurtingVolume& volume_;
  std::vector<Wound> all_;
};

// What runs came to; all of a test together.
struct Tally {
  unsigned runs = 0, exact = 0, said = 0, named = 0, wrong = 0;

  void Leave() const {
    Figure("runs", runs);
    Figure("right numbers", exact);
    Figure("other copies used and said", said);
    Figure("errors that name the block", named);
    Figure("wrong numbers", wrong);
  }
};

size_t CountOf(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size()) ++count;
  return count;
}

constexpr char kBadCopy[] = "NOTE: the copy of tree block ";

// A run on blocks of which some are hurt: a number is the kernel's, an error names a block, and one
// that was read from another copy is said, once.
void Judge(const EngineRun& run, const HurtingVolume& volume, const Wounds& wounds, Tally* tally) {
  SCOPED_TRACE(wounds.Text() + run.err);
  ++tally->runs;
  if (run.status == 0) {
    ++tally->exact;
    if (run.sizes != volume.Kernel()) ++tally->wrong;
    EXPECT_EQ(volume.Kernel(), run.sizes) << "a wrong number";
    EXPECT_LE(CountOf(run.err, kBadCopy), 1u) << "said more than once";
    if (CountOf(run.err, kBadCopy) == 0) return;
    ++tally->said;
    EXPECT_TRUE(wounds.AreNamedIn(run.err)) << "said of another block";
    EXPECT_GT(NumberOf(run, "mirrors"), 0u) << "not counted";
    return;
  }
  EXPECT_EQ(1, run.status);
  EXPECT_TRUE(run.sizes.empty()) << "a number beside an error";
  EXPECT_EQ(0u, run.err.rfind("ERROR: ", 0));
  ASSERT_FALSE(run.lines.empty());
  EXPECT_EQ(0u, run.lines.back().rfind("exclusive sizes unavailable: ", 0));
  EXPECT_TRUE(wounds.AreNamedIn(run.err)) << "no block is named";
  EXPECT_NE(std::string::npos, run.err.find("run btrfs scrub")) << "no next step";
  ++tally->named;
}

// The same where the faults stayed as they were all the time: what was met is known to be said.
void JudgeLasting(const EngineRun& run, const HurtingVolume& volume, const Wounds& wounds,
                  Tally* tally) {
  Judge(run, volume, wounds, tally);
  SCOPED_TRACE(wounds.Text() + run.err);
  if (wounds.CanBeHealed()) {
    EXPECT_EQ(0, run.status) << "another copy was there";
    EXPECT_EQ(wounds.Met(), CountOf(run.err, kBadCopy) == 1) << "said if and only if it was met";
  } else if (run.status == 0) {
    EXPECT_TRUE(!wounds.Met() || volume.Copies() > 1) << "a block that is hurt was believed";
  }
}

// Whether a text says that a disk is in the way: a block, a device by number or node, a superblock.
bool SaysWhy(const std::string& text, const std::string& node) {
  for (const std::string& what : {std::string("tree block "), std::string("superblock"), node})
    if (text.find(what) != std::string::npos) return true;
  return false;
}

// A run during which a disk, or a part of it, was gone.
void JudgeDeath(const EngineRun& run, const HurtingVolume& volume, size_t disk, bool met,
                Tally* tally) {
  SCOPED_TRACE("disk " + std::to_string(disk + 1) + ": " + run.err);
  const bool hasOther = volume.Copies() > 1 && volume.Disks() > 1;
  ++tally->runs;
  if (run.status != 0) {
    EXPECT_FALSE(hasOther) << "another disk has everything";
    EXPECT_TRUE(run.sizes.empty()) << "a number beside an error";
    EXPECT_EQ(0u, run.err.rfind("ERROR: ", 0));
    EXPECT_TRUE(SaysWhy(run.err, volume.Node(disk))) << "nothing is named";
    ++tally->named;
    return;
  }
  ++tally->exact;
  if (run.sizes != volume.Kernel()) ++tally->wrong;
  EXPECT_EQ(volume.Kernel(), run.sizes) << "a wrong number";
  const bool said = run.err.find("NOTE: ") != std::string::npos;
  tally->said += said;
  EXPECT_TRUE(said || !met) << "not said";
}

constexpr uint64_t kSuperblocks[] = {64 << 10, 64 << 20};

// How a block can be hurt for good.
std::vector<DiskFault> LastingFaults(const HurtingVolume& volume, const LiveBlock& block,
                                     std::mt19937& random) {
  const size_t size = volume.NodeSize();
  const LiveBlock& another = volume.Blocks()[random() % volume.Blocks().size()];
  // An earlier state of the block, sound in itself: as if a write had been lost.
  std::vector<uint8_t> stale = volume.ContentOf(block.copies[0]);
  HeaderOf(&stale).generation.Set(block.generation - 1);
  Seal(&stale);
  std::vector<uint8_t> inverse = volume.ContentOf(block.copies[0]);
  for (uint8_t& byte : inverse) byte = static_cast<uint8_t>(~byte);
  std::vector<DiskFault> faults = {
      {0, 0, DiskFault::kError},
      {0, 0, DiskFault::kShort},
      {0, 0, DiskFault::kFlip, static_cast<uint32_t>(256 + random() % (8 * size - 256))},
      {0, 0, DiskFault::kOther, 0, std::vector<uint8_t>(size)},  // as if discarded
      {0, 0, DiskFault::kOther, 0, std::move(stale)},
      {0, 0, DiskFault::kTorn, 0, std::move(inverse)},
  };
  if (another.bytenr != block.bytenr)  // sound, and written to the wrong place
    faults.push_back({0, 0, DiskFault::kOther, 0, volume.ContentOf(another.copies[0])});
  return faults;
}

constexpr const char* kWays[] = {"--stats --method=scan", "--stats --method=walk",
                                 "--stats --verify", "--stats --table"};

// A volume, and random choices that are the same in each run.
class HurtingDisk {
 public:
  explicit HurtingDisk(const DiskLayout& layout) : volume(layout) {}

  const LiveBlock& RandomBlock(Kind kind) {
    std::vector<const LiveBlock*> of;
    for (const LiveBlock& block : volume.Blocks())
      if (KindOf(block) == kind) of.push_back(&block);
    return *of.at(random() % of.size());
  }

  const LiveBlock& RandomBlock() { return volume.Blocks()[random() % volume.Blocks().size()]; }

  std::vector<std::string> RandomArguments() {
    return volume.Arguments(kWays[random() % std::size(kWays)]);
  }

  HurtingVolume volume;
  std::mt19937 random{1};
};

// Does something on a disk of each layout, for its part of the time that a test has.
void OnEachLayout(double part, const std::function<void(HurtingDisk&, const Budget&)>& test) {
  for (const DiskLayout& layout : kLayouts) {
    SCOPED_TRACE(layout.name);
    HurtingDisk disk(layout);
    test(disk, Budget(part / std::size(kLayouts)));
  }
}

// Hurts a block in one way: one copy of it, each in turn, then all.
void HurtInTurn(HurtingDisk& disk, const LiveBlock& block, const DiskFault& fault, Tally* tally) {
  const size_t copies = block.copies.size();
  for (size_t turn = 0; turn <= (copies > 1 ? copies : 0); ++turn) {
    Wounds wounds(disk.volume);
    for (size_t n = 0; n < copies; ++n)
      if (turn == n || turn == copies) wounds.Add(block, block.copies[n], fault);
    JudgeLasting(RunEngine(disk.RandomArguments()), disk.volume, wounds, tally);
    disk.volume.ClearFaults();
  }
}

// The copy of a block that the engine reads first.
const LiveBlock::Copy& FirstRead(HurtingVolume& volume, const LiveBlock& block) {
  for (const LiveBlock::Copy& copy : block.copies) {
    Wounds wounds(volume);
    wounds.Add(block, copy, {0, 0, DiskFault::kDelay, 0});
    (void)RunEngine(volume.Arguments("--method=scan"));
    const bool met = wounds.Met();
    volume.ClearFaults();
    if (met) return copy;
  }
  throw std::runtime_error("the block is not read");
}

// ---- The share
// -----------------------------------------------------------------------------------

constexpr char kShareStatus[] = "/usr/local/zorvbtrfssnapusage/share_task_status/photos";

CommandResult ByProgram() {
  return ZorvTest::Run({ZORV_BINARY_DIR "/bin/zorv-snapusage", "run", "photos", "--quiet"});
}

// What the calculation writes on standard error, and its exit status.
CommandResult ByLibrary() {
  const char kSaid[] = "/tmp/said";
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  int pid = -1;
  {
    PlatformHook<decltype(PLATCProcForkChildNoWait)> fork("PLATCProcForkChildNoWait");
    fork.Replace([&] {
      const int child = fork.Real();
      if (child > 0) pid = child;
      if (child == 0) dup2(open(kSaid, O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
      return child;
    });
    ShareSnapUsageCal calculation;
    EXPECT_EQ(0, calculation.CreateTask("photos"));
    EXPECT_EQ(0, calculation.Launch(nullptr, nullptr));
  }
  CommandResult result;
  result.status = WaitForExit(pid);
  result.err = ReadFile(kSaid);
  return result;
}

// Empty when the library has none to give.
std::vector<unsigned long long> Results(ZorvBtrfsUsage::TASK_RESULT_OPT what) {
  std::vector<unsigned long long> values;
  (void)ShareSnapUsageCal::GetResultVtr(what, "photos", values);
  return values;
}

// The stored results are the kernel's numbers of all snapshots.
void ExpectKernelsResults(const HurtingVolume& volume) {
  const std::vector<unsigned long long> ids = Results(ZorvBtrfsUsage::TASK_RESULT_OPT_SUBVOL_ID);
  const std::vector<unsigned long long> bytes = Results(ZorvBtrfsUsage::TASK_RESULT_OPT_RESULT);
  ASSERT_EQ(3u, ids.size());
  ASSERT_EQ(3u, bytes.size());
  for (size_t n = 0; n < ids.size(); ++n) EXPECT_EQ(volume.Kernel().at(ids[n]), bytes[n]);
}

}  // namespace

// Each kind of block in each way on each profile.
TEST(HurtingDisk, EachKindOfBlockInEachWay) {
  Tally tally;
  constexpr size_t kFaults = 7;
  const size_t steps = std::size(kKinds) * kFaults;
  size_t done = 0;
  OnEachLayout(0.15, [&](HurtingDisk& disk, const Budget& budget) {
    for (const size_t step : SpreadOrder(steps)) {
      const size_t way = step % kFaults;
      // An error in each kind of block there is in any case.
      if (way != 0 && !budget.IsLeft()) continue;
      ++done;
      const LiveBlock& block = disk.RandomBlock(kKinds[step / kFaults]);
      const std::vector<DiskFault> faults = LastingFaults(disk.volume, block, disk.random);
      HurtInTurn(disk, block, faults[std::min(way, faults.size() - 1)], &tally);
    }
  });
  Figure("steps", done);
  Figure("of steps", steps * std::size(kLayouts));
  tally.Leave();
}

// ---- Questions about files ----------------------------------------------------------------------

// The questions which files are behind a number, and who holds the data of a file and of a folder.
std::vector<std::vector<std::string>> Questions(const HurtingVolume& volume) {
  const std::string id = std::to_string(SubvolumeID(std::string(kMount) + "/written"));
  std::vector<std::vector<std::string>> questions;
  for (const char* method : {"--method=scan", "--method=walk"}) {
    questions.push_back({"-vm", method, "--files", "1000", "--depth", "9", "-r", kMount, id});
    for (const char* path : {"65", "."}) {
      questions.push_back({"-vm", method, "--holders", path, "-r", kMount});
      for (const auto& [subvolume, bytes] : volume.Kernel())
        questions.back().push_back(std::to_string(subvolume));
    }
  }
  return questions;
}

// What is said of files and of subvolumes, without how far the run has come.
std::string AnswerOf(const EngineRun& run) {
  std::string answer;
  for (const std::string& line : run.lines)
    if (line.rfind("processed ", 0) != 0 && line.rfind("exclusive ", 0) != 0) answer += line + "\n";
  return answer;
}

// Whether an error says where the damage is: a block, an item of one, or an inode.
bool NamesDamage(const std::string& text) {
  return (text.find("tree block ") != std::string::npos ||
          text.find("inode ") != std::string::npos) &&
         text.find("run btrfs ") != std::string::npos;
}

// Asks on blocks of which some are hurt: the answer is that of the sound file system, or the error
// says where. Returns whether it was the answer.
bool AskHurt(const std::vector<std::string>& question, const std::string& right,
             const Wounds& wounds, Tally* tally) {
  const EngineRun run = RunEngine(question);
  SCOPED_TRACE(wounds.Text() + run.err);
  ++tally->runs;
  if (run.status == 0) {
    ++tally->exact;
    if (AnswerOf(run) != right) ++tally->wrong;
    EXPECT_EQ(right, AnswerOf(run));
    return true;
  }
  EXPECT_EQ(1, run.status);
  EXPECT_TRUE(run.sizes.empty()) << "a number beside an error";
  EXPECT_EQ(0u, run.err.rfind("ERROR: ", 0));
  EXPECT_TRUE(NamesDamage(run.err)) << "nothing is named";
  ++tally->named;
  return false;
}

// Blocks that are hurt in each way, under each question.
TEST(HurtingDisk, QuestionsAboutFilesMeetEachKindOfBlock) {
  const Budget budget(0.1);
  HurtingDisk disk(kLayouts[0]);
  const std::vector<std::vector<std::string>> questions = Questions(disk.volume);
  std::vector<std::string> right;
  for (const auto& question : questions) {
    right.push_back(AnswerOf(RunEngine(question)));
    ASSERT_NE("", right.back());
  }
  Tally tally;
  unsigned met = 0;
  for (size_t step = 0; budget.IsLeft() || met < 20; ++step) {
    ASSERT_LT(step, 100000u);
    const LiveBlock& block = disk.RandomBlock(kKinds[step % std::size(kKinds)]);
    const std::vector<DiskFault> faults = LastingFaults(disk.volume, block, disk.random);
    Wounds wounds(disk.volume);
    wounds.Add(block, block.copies[0], faults[disk.random() % faults.size()]);
    const size_t number = disk.random() % questions.size();
    const bool answered = AskHurt(questions[number], right[number], wounds, &tally);
    EXPECT_TRUE(!answered || !wounds.Met()) << "a block that is hurt was believed";
    met += wounds.Met();
    disk.volume.ClearFaults();
    if (testing::Test::HasFailure()) break;
  }
  Figure("runs that met one", met);
  tally.Leave();
}

// Items of a leaf that are spoilt before the checksum was made, as by a bad memory.
struct SpoiltItem {
  const char* name;
  uint8_t type;
  const char* question;  // that comes to such items
  void (*spoil)(uint8_t* data, size_t size);
};

void SetTo(uint8_t* data, size_t size, size_t at, std::vector<uint8_t> bytes) {
  for (size_t i = 0; i < bytes.size() && at + i < size; ++i) data[at + i] = bytes[i];
}

constexpr uint8_t kInodeRef = 12, kDirItem = 84, kDirIndex = 96, kExtentData = 108;

// Each makes no sense, whatever else the file system holds.
const SpoiltItem kSpoiltItems[] = {
    {"name without a length", kInodeRef, "--files",
     [](uint8_t* d, size_t n) {
       SetTo(d, n, 8, {0, 0});
     }},
    {"name beyond its item", kInodeRef, "--files",
     [](uint8_t* d, size_t n) {
       SetTo(d, n, 8, {200, 0});
     }},
    {"name with a slash", kInodeRef, "--files",
     [](uint8_t* d, size_t n) { SetTo(d, n, 10, {'/'}); }},
    {"entry beyond its item", kDirItem, "65",
     [](uint8_t* d, size_t n) {
       SetTo(d, n, 27, {255, 0});
     }},
    {"entry with data beyond", kDirItem, "65",
     [](uint8_t* d, size_t n) {
       SetTo(d, n, 25, {255, 255});
     }},
    {"entry with a NUL", kDirItem, "65", [](uint8_t* d, size_t n) { SetTo(d, n, 30, {0}); }},
    {"entry of an inode that is none", kDirItem, "65",
     [](uint8_t* d, size_t n) {
       SetTo(d, n, 0, {1, 2, 3, 4, 5, 6, 7});
     }},
    {"index beyond its item", kDirIndex, ".",
     [](uint8_t* d, size_t n) {
       SetTo(d, n, 27, {255, 0});
     }},
    {"index of an inode that is none", kDirIndex, ".",
     [](uint8_t* d, size_t n) {
       SetTo(d, n, 0, {1, 2, 3, 4, 5, 6, 7});
     }},
    {"extent of an unknown kind", kExtentData, ".",
     [](uint8_t* d, size_t n) { SetTo(d, n, 20, {9}); }},
    {"extent at no sector", kExtentData, ".", [](uint8_t* d, size_t n) { SetTo(d, n, 21, {1}); }},
    {"extent of no bytes", kExtentData, ".",
     [](uint8_t* d, size_t n) {
       SetTo(d, n, 29, {0, 0, 0, 0, 0, 0, 0, 0});
     }},
    {"extent of half a sector", kExtentData, ".",
     [](uint8_t* d, size_t n) { SetTo(d, n, 29, {1}); }},
    {"extent of exabytes", kExtentData, ".", [](uint8_t* d, size_t n) { SetTo(d, n, 36, {0x40}); }},
};

// Entries are looked up by their name.
bool IsAskedFor(const SpoiltItem& way, ZorvEngine::ByteView data) {
  const std::string name(reinterpret_cast<const char*>(data.Data()), data.Size());
  return way.type != kDirItem || name.substr(std::min<size_t>(30, name.size())) == way.question;
}

// The block with one item spoilt, sealed; nothing when it has none that can be.
std::optional<std::vector<uint8_t>> Spoilt(std::vector<uint8_t> block, const SpoiltItem& way,
                                           std::mt19937& random) {
  std::optional<ZorvEngine::TreeBlockView> leaf;
  if (ZorvEngine::TreeBlockView::Parse(View(block), &leaf) != nullptr || !leaf->IsLeaf())
    return std::nullopt;
  std::vector<uint32_t> slots;
  for (uint32_t slot = 0; slot < leaf->Count(); ++slot)
    if (leaf->KeyAt(slot).type == way.type && IsAskedFor(way, leaf->DataAt(slot)))
      slots.push_back(slot);
  if (slots.empty()) return std::nullopt;
  const ZorvEngine::ByteView data = leaf->DataAt(slots[random() % slots.size()]);
  // Inline data has no place on the disk that could be wrong.
  if (way.type == kExtentData && (data.Size() < 53 || data.Data()[20] == 0)) return std::nullopt;
  way.spoil(block.data() + (data.Data() - block.data()), data.Size());
  Seal(&block);
  return block;
}

// The same where the checksum is right: what is not used harms nobody.
TEST(HurtingDisk, QuestionsAboutFilesMeetSpoiltItems) {
  const Budget budget(0.1);
  HurtingDisk disk(kLayouts[0]);
  const std::vector<std::vector<std::string>> questions = Questions(disk.volume);
  std::vector<std::string> right;
  for (const auto& question : questions) right.push_back(AnswerOf(RunEngine(question)));
  Tally tally;
  std::map<std::string, unsigned> said;
  const auto eachWasSaid = [&] { return said.size() == std::size(kSpoiltItems); };
  for (size_t step = 0; budget.IsLeft() || !eachWasSaid(); ++step) {
    ASSERT_LT(step, 20000u);
    const SpoiltItem& way = kSpoiltItems[step % std::size(kSpoiltItems)];
    if (!budget.IsLeft() && said.count(way.name) != 0) continue;
    const LiveBlock& block = disk.RandomBlock(Kind::kSubvolumeLeaf);
    const auto spoilt = Spoilt(disk.volume.ContentOf(block.copies[0]), way, disk.random);
    if (!spoilt) continue;
    SCOPED_TRACE(way.name);
    Wounds wounds(disk.volume);
    wounds.Add(block, block.copies[0], {0, 0, DiskFault::kOther, 0, *spoilt});
    size_t number = disk.random() % questions.size();
    while (std::ranges::count(questions[number], way.question) == 0)
      number = (number + 1) % questions.size();
    if (!AskHurt(questions[number], right[number], wounds, &tally)) ++said[way.name];
    disk.volume.ClearFaults();
    if (testing::Test::HasFailure()) break;
  }
  Figure("ways that were said", said.size());
  tally.Leave();
}

// Bits of any block, one or a few at a time.
TEST(HurtingDisk, RandomBitsAreFound) {
  Tally tally;
  unsigned flips = 0, met = 0;
  OnEachLayout(0.1, [&](HurtingDisk& disk, const Budget& budget) {
    unsigned metHere = 0;
    do {
      Wounds wounds(disk.volume);
      std::set<uint64_t> hurt;
      for (unsigned n = 1 + disk.random() % 4; n > 0; --n) {
        const LiveBlock& block = disk.RandomBlock();
        if (!hurt.insert(block.bytenr).second) continue;
        // The first 32 bytes have room for longer checksums than this one of 4.
        uint32_t bit = disk.random() % (8 * disk.volume.NodeSize() - 224);
        if (bit >= 32) bit += 224;
        wounds.Add(block, block.copies[disk.random() % block.copies.size()],
                   {0, 0, DiskFault::kFlip, bit});
        ++flips;
      }
      JudgeLasting(RunEngine(disk.RandomArguments()), disk.volume, wounds, &tally);
      metHere += wounds.Met();
      disk.volume.ClearFaults();
    } while (budget.IsLeft() || metHere < 5);
    met += metHere;
  });
  Figure("flips", flips);
  Figure("runs that met one", met);
  tally.Leave();
}

// In the middle of a run: what was sound is not, what was not is again, what is read is one of two
// writes, or a mixture of both.
TEST(HurtingDisk, AtARandomMoment) {
  Tally tally;
  unsigned moments = 0;
  OnEachLayout(0.1, [&](HurtingDisk& disk, const Budget& budget) {
    RandomMoment moment;
    unsigned met = 0;
    do {
      const LiveBlock& block = disk.RandomBlock(
          disk.random() % 2 == 0 ? Kind::kExtentLeaf : kKinds[disk.random() % std::size(kKinds)]);
      std::vector<uint8_t> other = disk.volume.ContentOf(block.copies[0]);
      for (size_t n = other.size() / 2; n < other.size(); ++n) other[n] = 0;
      const DiskFault faults[] = {{0, 0, DiskFault::kError},
                                  {0, 0, DiskFault::kFlicker, 0, other},
                                  {0, 0, DiskFault::kDelay, 50}};
      const DiskFault& fault = faults[disk.random() % std::size(faults)];
      Wounds wounds(disk.volume);
      const bool early = disk.random() % 2 == 0;
      if (early) wounds.Add(block, block.copies[0], fault);
      EngineProcess engine(disk.RandomArguments());
      const bool stopped = engine.StopWorker(moment.Next());
      moment.WasMet(stopped);
      met += stopped;
      if (!early) wounds.Add(block, block.copies[0], fault);
      if (stopped && early && disk.random() % 2 == 0) disk.volume.ClearFaults();
      if (stopped) engine.ContinueWorker();
      Judge(engine.Finish(), disk.volume, wounds, &tally);
      disk.volume.ClearFaults();
    } while (budget.IsLeft() || met < 5);
    moments += met;
  });
  Figure("moments", moments);
  tally.Leave();
}

// A disk gives nothing at all from one moment on, before a run or in its middle.
TEST(HurtingDisk, DiesAtARandomMoment) {
  Tally tally;
  unsigned moments = 0;
  OnEachLayout(0.1, [&](HurtingDisk& disk, const Budget& budget) {
    RandomMoment moment;
    unsigned met = 0;
    do {
      const size_t dying = disk.random() % disk.volume.Disks();
      const DiskFault death{0, UINT64_MAX, DiskFault::kError};
      const bool before = disk.random() % 4 == 0;
      if (before) disk.volume.Disk(dying).Add(death);
      EngineProcess engine(disk.RandomArguments());
      const bool stopped = engine.StopWorker(moment.Next());
      moment.WasMet(stopped);
      if (!before) disk.volume.Disk(dying).Add(death);
      if (stopped) engine.ContinueWorker();
      const EngineRun run = engine.Finish();
      const bool wasMet = disk.volume.Disk(dying).Hits(0) > 0;
      disk.volume.ClearFaults();
      met += wasMet;
      JudgeDeath(run, disk.volume, dying, wasMet, &tally);
    } while (budget.IsLeft() || met < 5);
    moments += met;
  });
  Figure("deaths met", moments);
  tally.Leave();
}

// Each superblock alone, both of a disk, and all of a file system.
TEST(HurtingDisk, SuperblocksHaveCopiesToo) {
  unsigned runs = 0;
  OnEachLayout(0.05, [&](HurtingDisk& disk, const Budget& budget) {
    HurtingVolume& volume = disk.volume;
    for (const DiskFault::Kind kind : {DiskFault::kError, DiskFault::kFlip}) {
      if (kind != DiskFault::kError && !budget.IsLeft()) continue;
      for (const uint64_t offset : kSuperblocks) {
        SCOPED_TRACE(offset);
        volume.Disk(0).Add({offset, 4096, kind, 8 * 300});
        const EngineRun run = RunEngine(volume.Arguments(kWays[0]));
        EXPECT_EQ(volume.Kernel(), run.sizes) << run.err;
        EXPECT_EQ(1u, CountOf(run.err, "NOTE: device 1: the superblock at " +
                                           std::to_string(offset) + " is damaged"))
            << run.err;
        volume.ClearFaults();
        ++runs;
      }
      for (size_t disks = 1; disks <= volume.Disks(); ++disks) {
        SCOPED_TRACE(disks);
        for (size_t n = 0; n < disks; ++n)
          for (const uint64_t offset : kSuperblocks)
            volume.Disk(n).Add({offset, 4096, kind, 8 * 300});
        const EngineRun run = RunEngine(volume.Arguments(kWays[0]));
        volume.ClearFaults();
        const bool isEnough = disks < volume.Copies() && disks < volume.Disks();
        if (isEnough) {
          EXPECT_EQ(volume.Kernel(), run.sizes) << run.err;
        } else if (run.status == 0) {
          EXPECT_EQ(volume.Kernel(), run.sizes) << "the disks that are left have everything";
        }
        EXPECT_TRUE(run.status == 0 || run.sizes.empty());
        EXPECT_TRUE(SaysWhy(run.err, volume.Node(0))) << run.err;
        ++runs;
      }
    }
  });
  Figure("runs", runs);
}

// The file below a disk is cut while the file system is mounted, before a run reads or in its
// middle.
TEST(HurtingDisk, IsCutShort) {
  Tally tally;
  unsigned cuts = 0, inRuns = 0;
  OnEachLayout(0.1, [&](HurtingDisk& disk, const Budget& budget) {
    HurtingVolume& volume = disk.volume;
    RandomMoment moment;
    unsigned met = 0, metInTheMiddle = 0;
    do {
      const size_t which = disk.random() % volume.Disks();
      const std::string& image = volume.Disk(which).Image();
      const std::string whole = image + ".whole";
      MustRun({"cp", "--sparse=always", image, whole});
      const uint64_t end = disk.random() % (48u << 20) / 512 * 512;
      const bool inTheMiddle = disk.random() % 2 == 0;
      EngineProcess engine(disk.RandomArguments());
      const bool stopped = inTheMiddle && engine.StopWorker(moment.Next());
      if (inTheMiddle) moment.WasMet(stopped);
      // Counts the reads of what is not there.
      volume.Disk(which).Add({end, UINT64_MAX - end, DiskFault::kDelay, 0});
      std::filesystem::resize_file(image, end);
      if (engine.Worker() > 0) engine.ContinueWorker();
      SCOPED_TRACE("cut at " + std::to_string(end));
      // What was read there may have been more than was needed.
      JudgeDeath(engine.Finish(), volume, which, /*met=*/false, &tally);
      const bool wasMet = volume.Disk(which).Hits(0) > 0;
      met += wasMet;
      metInTheMiddle += wasMet && stopped;
      disk.volume.ClearFaults();
      MustRun({"cp", "--sparse=always", whole, image});
      (void)unlink(whole.c_str());
    } while (budget.IsLeft() || met < 3 || metInTheMiddle == 0);
    cuts += met;
    inRuns += metInTheMiddle;
  });
  Figure("cuts met", cuts);
  Figure("of them in the middle of a run", inRuns);
  tally.Leave();
}

// A disk that does not answer: the front leaves with its reader, and nothing is left once the disk
// has answered; one that answers late costs time and nothing else.
TEST(HurtingDisk, ThatDoesNotAnswerHoldsOnlyTheWorker) {
  constexpr uint32_t kForEver = 600'000;
  HurtingDisk disk(kLayouts[0]);
  const LiveBlock& root = disk.RandomBlock(Kind::kExtentNode);
  const NapClock clock;
  Lateness leaves(0.2);
  for (int n = 0; n < 10; ++n) {
    disk.volume.Disk(0).Add(
        {root.copies[0].offset, disk.volume.NodeSize(), DiskFault::kDelay, kForEver});
    EngineProcess engine(disk.volume.Arguments(kWays[0]));
    ASSERT_TRUE(WaitUntil([&] { return disk.volume.Disk(0).Hits(0) > 0; }));
    const OwnTime time(clock, engine.Front());
    engine.LeaveAsReader();
    ASSERT_TRUE(engine.FrontEndsWithin());
    leaves.Take(time.Seconds());
    disk.volume.ClearFaults();
    EXPECT_TRUE(WaitUntil([&] { return engine.WorkerEnded(); })) << "the worker is left over";
  }
  leaves.Judge();

  disk.volume.Disk(0).Add({root.copies[0].offset, disk.volume.NodeSize(), DiskFault::kDelay, 3000});
  const EngineRun late = RunEngine(disk.volume.Arguments(kWays[0]));
  EXPECT_EQ(disk.volume.Kernel(), late.sizes) << late.err;
}

// The share's calculation, by the program and by a caller of the library alone, over blocks that
// hurt: the state, the code, the words of the engine, and no number that is not the kernel's.
TEST(HurtingShare, FailsWithTheBlockOrSaysThatAnotherCopyWasUsed) {
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs",
                             std::filesystem::copy_options::overwrite_existing);
  unsigned failed = 0, said = 0;
  for (const DiskLayout& layout : {kLayouts[0], kLayouts[2]}) {
    HurtingDisk disk(layout);
    for (CommandResult (*calculate)() : {ByProgram, ByLibrary}) {
      EXPECT_EQ("", calculate().err);
      ExpectKernelsResults(disk.volume);
      for (int n = 0; n < 3; ++n) {
        // The root of the extent tree is on every way.
        const LiveBlock& block = *std::ranges::max_element(
            disk.volume.Blocks(), {},
            [](const LiveBlock& of) { return of.tree == 2 ? of.level + 1 : 0; });
        Wounds wounds(disk.volume);
        const std::vector<DiskFault> faults = LastingFaults(disk.volume, block, disk.random);
        wounds.Add(block, FirstRead(disk.volume, block), faults[static_cast<size_t>(n)]);
        const CommandResult result = calculate();
        disk.volume.ClearFaults();
        SCOPED_TRACE(wounds.Text() + result.err);
        EXPECT_TRUE(wounds.AreNamedIn(result.err));
        EXPECT_NE(std::string::npos, result.err.find("run btrfs scrub"));
        const std::string status = ReadFile(kShareStatus);
        if (disk.volume.Copies() == 1) {
          ++failed;
          EXPECT_NE(0, result.status);
          EXPECT_NE(std::string::npos, status.find("\"status\":\"fail\"")) << status;
          EXPECT_NE(std::string::npos, status.find("\"error_code\":\"1\"")) << status;
          EXPECT_TRUE(Results(ZorvBtrfsUsage::TASK_RESULT_OPT_RESULT).empty());
        } else {
          ++said;
          EXPECT_EQ(0, result.status);
          EXPECT_NE(std::string::npos, status.find("\"status\":\"done\"")) << status;
          ExpectKernelsResults(disk.volume);
        }
      }
    }
  }
  Figure("failed and named the block", failed);
  Figure("other copies used and said", said);
}
