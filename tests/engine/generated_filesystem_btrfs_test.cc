// Generated file systems: format, devices, mount and a random history, all from a seed.  The
// engine's numbers are held against the kernel's, and against what deletion then frees.
//
// A failed seed leaves its images in the build directory.  scripts/generated.sh runs further seeds.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>

#include <algorithm>
#include <random>

#include "tests/engine/deletion_steps.h"
#include "tests/engine/forecast_run.h"
#include "tests/engine/generated_history.h"
#include "tests/engine/generated_recipe.h"
#include "tests/engine/tree_shapes.h"
#include "tests/support/btrfs_ioctls.h"

using namespace ZorvTest;

namespace {

constexpr char kMount[] = "/volume1";
using Ids = std::vector<unsigned long long>;

// The fixed seeds of every run, unless scripts/generated.sh asks for others.
constexpr unsigned kFirstSeed = 1;
constexpr unsigned kSeeds = 44;

unsigned FromEnvironment(const char* name, unsigned otherwise) {
  const char* text = getenv(name);
  return text == nullptr ? otherwise : static_cast<unsigned>(strtoul(text, nullptr, 10));
}

unsigned FirstSeed() { return FromEnvironment("ZORV_GENERATED_FIRST", kFirstSeed); }
unsigned SeedCount() { return FromEnvironment("ZORV_GENERATED_COUNT", kSeeds); }

// What the file systems of this run had, in sum.
struct Seen {
  unsigned fileSystems = 0;
  unsigned deletions = 0;
  Features features;
};
Seen& SeenSoFar() {
  static Seen seen;
  return seen;
}

class Generated : public testing::TestWithParam<unsigned> {
 protected:
  void TearDown() override {
    if (!HasFailure()) return;
    const std::string directory =
        ZORV_BINARY_DIR "/generated-failures/seed" + std::to_string(GetParam());
    (void)umount2(kMount, 0);  // where the test has not come to it
    if (volume_ != nullptr) volume_->SaveImages(directory);
    printf("seed %u failed; images: %s; again: scripts/generated.sh --first-seed %u --count 1\n",
           GetParam(), directory.c_str(), GetParam());
  }

  unsigned Below(size_t end) { return static_cast<unsigned>(random_() % end); }

  Ids Shuffled(Ids ids) {
    std::shuffle(ids.begin(), ids.end(), random_);
    return ids;
  }

  // Some of the subvolumes, two at least.
  Ids Subset() {
    Ids ids = Shuffled(ids_);
    ids.resize(std::min<size_t>(ids.size(), 2 + Below(ids.size())));
    return ids;
  }

  void Make() {
    volume_ = std::make_unique<BtrfsVolume>(kMount, recipe_.options);
    history_ = std::make_unique<GeneratedHistory>(*volume_, recipe_);
    history_->Run();
    CommitAndClean(kMount);
    for (const Place& place : history_->Places()) ids_.push_back(RootId(volume_->Path(place.path)));
  }

  void CountFeatures() {
    Features& features = SeenSoFar().features;
    AddFeatures(recipe_.features, &features);
    AddFeatures(history_->Done(), &features);
    AddFeatures(ReadExtentTree(kMount).features, &features);
    AddFeatures(ReadFileExtents(kMount, {ids_.begin(), ids_.end()}), &features);
    for (const Place& place : history_->Places())
      if (place.nestedEntries > 0) ++features["NestedEntry"];
  }

  static Sizes Restricted(const Sizes& sizes, const Ids& ids) {
    Sizes some;
    for (const unsigned long long id : ids) some[id] = sizes.at(id);
    return some;
  }

  void CompareAllAtOnce(const Sizes& kernel) {
    ASSERT_EQ(ids_.size(), kernel.size());
    EXPECT_EQ(kernel, EngineSizes("-vm --method scan", kMount, Shuffled(ids_)));
    EXPECT_EQ(kernel, EngineSizes("-vpm --method walk", kMount, Shuffled(ids_)));
  }

  void CompareSome(const Sizes& kernel) {
    for (int n = 0; n < 4; ++n) {
      const Ids one = {ids_[Below(ids_.size())]};
      EXPECT_EQ(Restricted(kernel, one), EngineSizes("-vm --verify", kMount, one));
      const Ids some = Subset();
      for (const char* method : {"scan", "walk", "auto"})
        EXPECT_EQ(Restricted(kernel, some),
                  EngineSizes(std::string("-vm --method ") + method, kMount, some));
    }
  }

  // The kernel has no number for data alone; but the rest is whole tree blocks, the root node one
  // of them, and both ways of counting agree.
  void CompareDataAlone(const Sizes& kernel) {
    const Sizes data = EngineSizes("-v --verify", kMount, ids_);
    for (const auto& [id, bytes] : kernel) {
      EXPECT_GE(bytes, data.at(id) + recipe_.nodeSize) << id;
      EXPECT_EQ(0u, (bytes - data.at(id)) % recipe_.nodeSize) << id;
    }
    const Ids some = Subset();
    EXPECT_EQ(Restricted(data, some), EngineSizes("-v", kMount, some));
  }

  // What some subvolumes hold together and nobody else does.
  void CompareSets(const BtrfsVolume::IdSets& sets, const std::vector<unsigned long long>& kernel) {
    for (size_t n = 0; n < sets.size(); ++n) {
      const EngineRun run =
          RunEngine({"--verify", "--forecast", Joined(Shuffled(sets[n])), "-r", kMount});
      const std::vector<ForecastStep> steps = StepsOf(run);
      ASSERT_EQ(sets[n].size(), steps.size()) << run.err;
      EXPECT_EQ(kernel[n], steps.back().soFarData + steps.back().soFarMetadata)
          << testing::PrintToString(sets[n]);
    }
  }

  // Every subvolume but the top level, nested ones before what they lie in, else in any order.
  std::vector<Deletion> DeletionOrder() {
    std::vector<Deletion> order;
    const std::vector<Place>& places = history_->Places();
    for (size_t n = 1; n < places.size(); ++n)
      order.push_back({places[n].path, ids_[n], IsNested(places[n])});
    std::shuffle(order.begin(), order.end(), random_);
    std::stable_sort(order.begin(), order.end(), [](const Deletion& a, const Deletion& b) {
      return std::count(a.path.begin(), a.path.end(), '/') >
             std::count(b.path.begin(), b.path.end(), '/');
    });
    return order;
  }

  static bool IsNested(const Place& place) {
    return place.path.find('/') != std::string::npos && place.path.rfind("received/", 0) != 0;
  }

  // On a copy, so that the images of a failure are those that failed.
  unsigned CompareWithDeletion() {
    volume_->Unmount();
    const std::unique_ptr<BtrfsVolume> copy = volume_->Copy();
    copy->Mount();
    const bool topLevelHasSnapshot = history_->Done().count("SnapshotOfTopLevel") > 0;
    return DeleteInOrder(*copy, DeletionOrder(),
                         {recipe_.nodeSize, recipe_.mixed, topLevelHasSnapshot});
  }

  const Recipe recipe_ = MakeRecipe(GetParam());
  std::mt19937 random_{GetParam()};
  std::unique_ptr<BtrfsVolume> volume_;
  std::unique_ptr<GeneratedHistory> history_;
  Ids ids_;  // in the order of the history's places
};

}  // namespace

TEST_P(Generated, EqualsTheKernelAndWhatDeletionFrees) {
  Make();
  CountFeatures();
  const BtrfsVolume::IdSets sets = {Subset(), Subset(), Subset(), Subset()};
  const KernelSizes kernel = volume_->KernelExclusiveOf(sets);
  CompareAllAtOnce(kernel.exclusive);
  if (HasFailure()) return;
  CompareSome(kernel.exclusive);
  CompareDataAlone(kernel.exclusive);
  CompareSets(sets, kernel.sets);
  const unsigned deletions = CompareWithDeletion();
  if (HasFailure()) return;
  printf("seed %u agrees: %zu subvolumes, %u deletions\n", GetParam(), ids_.size(), deletions);
  ++SeenSoFar().fileSystems;
  SeenSoFar().deletions += deletions;
}

INSTANTIATE_TEST_SUITE_P(Seeds, Generated, testing::Range(FirstSeed(), FirstSeed() + SeedCount()),
                         [](const auto& test) { return "Seed" + std::to_string(test.param); });

// What follows is about the fixed seeds, all of which have run before in this process: tests with
// parameters run in the order of their definition.
class GeneratedSeeds : public testing::Test {
 protected:
  void SetUp() override {
    if (SeenSoFar().fileSystems != kSeeds)
      GTEST_SKIP() << SeenSoFar().fileSystems << " file systems agreed in this run, of " << kSeeds;
  }
};

class GeneratedSeedsFeature : public GeneratedSeeds,
                              public testing::WithParamInterface<std::string> {};

namespace {

const char* const kFormatFeatures[] = {
    // Profiles and devices
    "DataSingle", "DataDup", "DataRaid0", "DataRaid1", "DataRaid1c3", "DataRaid1c4", "DataRaid10",
    "DataRaid5", "DataRaid6", "MetadataSingle", "MetadataDup", "MetadataRaid0", "MetadataRaid1",
    "MetadataRaid1c3", "MetadataRaid1c4", "MetadataRaid10", "MetadataRaid5", "MetadataRaid6",
    "MixedGroups", "Devices1", "Devices2", "Devices3", "Devices4", "Devices5", "Devices6",
    // Format
    "Nodes4k", "Nodes8k", "Nodes16k", "Nodes32k", "Nodes64k", "Crc32c", "Xxhash", "Sha256",
    "Blake2b", "NoSkinnyMetadata", "HoleItems", "NoFreeSpaceTree",
    // Mount options
    "MountPlain", "MountZstd", "MountNoInline", "MountForcedLzo", "MountNoDataCow",
    "MountForcedZlib", "MountLargeInline", "MountNoDataSum", "MountFlushOnCommit",
    "MountForcedZstd", "MountSsdSpread",
    // What is in the trees afterwards
    "InlineExtent", "PreallocatedExtent", "HoleExtent", "PartOfAnExtent", "ZlibExtent", "LzoExtent",
    "ZstdExtent", "NestedEntry", "TreeBlockRef", "SharedBlockRef", "ExtentDataRef", "SharedDataRef",
    "KeyedTreeBlockRef", "KeyedSharedBlockRef", "KeyedExtentDataRef", "KeyedSharedDataRef",
    "FullBackref"};

std::vector<std::string> AllFeatures() {
  std::vector<std::string> all = GeneratedHistory::AllSteps();
  all.insert(all.end(), std::begin(kFormatFeatures), std::end(kFormatFeatures));
  return all;
}

}  // namespace

TEST_P(GeneratedSeedsFeature, OccursInOneAtLeast) {
  const unsigned count = SeenSoFar().features[GetParam()];
  printf("%u times\n", count);
  EXPECT_GT(count, 0u);
}

INSTANTIATE_TEST_SUITE_P(All, GeneratedSeedsFeature, testing::ValuesIn(AllFeatures()),
                         [](const auto& test) { return test.param; });

class GeneratedSeedsSum : public GeneratedSeeds, public testing::WithParamInterface<unsigned> {};

TEST_P(GeneratedSeedsSum, HasEnoughDeletions) {
  printf("%u file systems, %u deletions\n", SeenSoFar().fileSystems, SeenSoFar().deletions);
  EXPECT_GE(SeenSoFar().deletions, GetParam());
}

INSTANTIATE_TEST_SUITE_P(AtLeast, GeneratedSeedsSum, testing::Values(300u));
