#include "tests/engine/generated_recipe.h"

#include <algorithm>
#include <iterator>
#include <random>

namespace ZorvTest {
namespace {

struct Profile {
  const char* name;     // as mkfs says it
  const char* feature;  // as features say it
  unsigned leastDevices;
};

const Profile kProfiles[] = {
    {"single", "Single", 1}, {"dup", "Dup", 1},         {"raid0", "Raid0", 2},
    {"raid1", "Raid1", 2},   {"raid1c3", "Raid1c3", 3}, {"raid1c4", "Raid1c4", 4},
    {"raid10", "Raid10", 4}, {"raid5", "Raid5", 2},     {"raid6", "Raid6", 3},
};
constexpr unsigned kMostDevices = 6;

struct Choice {
  const char* option;
  const char* feature;
};

const Choice kChecksums[] = {
    {"crc32c", "Crc32c"}, {"xxhash", "Xxhash"}, {"sha256", "Sha256"}, {"blake2", "Blake2b"}};

const Choice kMounts[] = {{"", "MountPlain"},
                          {"compress=zstd", "MountZstd"},
                          {"max_inline=0", "MountNoInline"},
                          {"compress-force=lzo", "MountForcedLzo"},
                          {"nodatacow", "MountNoDataCow"},
                          {"compress-force=zlib", "MountForcedZlib"},
                          {"max_inline=4095,compress=lzo", "MountLargeInline"},
                          {"nodatasum", "MountNoDataSum"},
                          {"flushoncommit,notreelog", "MountFlushOnCommit"},
                          {"compress-force=zstd:9", "MountForcedZstd"},
                          {"ssd_spread,discard=async", "MountSsdSpread"}};

const unsigned kNodeSizes[] = {4096, 8192, 16384, 32768, 65536};

class Cook {
 public:
  explicit Cook(unsigned seed) : random_(seed * 2654435761u + 1) { recipe_.seed = seed; }

  Recipe Make() {
    ChooseProfiles();
    ChooseFormat();
    ChooseMount();
    recipe_.manyReferences = recipe_.seed % 40 == 7;
    recipe_.manySnapshots = recipe_.seed % 20 == 10;
    recipe_.steps = 300 + Below(300);
    return recipe_;
  }

 private:
  unsigned Below(unsigned end) { return static_cast<unsigned>(random_() % end); }

  void Feature(const std::string& name) { ++recipe_.features[name]; }

  void Mkfs(const std::vector<std::string>& words) {
    recipe_.options.mkfs.insert(recipe_.options.mkfs.end(), words.begin(), words.end());
  }

  void ChooseProfiles() {
    recipe_.mixed = recipe_.seed % 8 == 5;
    const Profile& data = kProfiles[recipe_.seed % std::size(kProfiles)];
    const Profile& metadata = recipe_.mixed ? data : kProfiles[Below(std::size(kProfiles))];
    Mkfs({"-d", data.name, "-m", metadata.name});
    Feature(std::string("Data") + data.feature);
    Feature(std::string("Metadata") + metadata.feature);
    if (recipe_.mixed) {
      Mkfs({"--mixed"});
      Feature("MixedGroups");
    }
    const unsigned least = std::max(data.leastDevices, metadata.leastDevices);
    const unsigned devices = Below(3) == 0 ? least : least + Below(kMostDevices + 1 - least);
    for (unsigned n = 0; n < devices; ++n)
      recipe_.options.devicesMiB.push_back(static_cast<int>(900 + Below(5) * 150));
    Feature("Devices" + std::to_string(devices));
  }

  void ChooseFormat() {
    // The kernel wants nodes of the sector size in mixed groups.
    recipe_.nodeSize = recipe_.mixed ? 4096 : kNodeSizes[recipe_.seed % std::size(kNodeSizes)];
    Mkfs({"-n", std::to_string(recipe_.nodeSize)});
    Feature("Nodes" + std::to_string(recipe_.nodeSize / 1024) + "k");
    const Choice& checksum = kChecksums[recipe_.seed / 2 % std::size(kChecksums)];
    Mkfs({"--csum", checksum.option});
    Feature(checksum.feature);
    if (Below(4) == 0) {
      Mkfs({"-O", "^skinny-metadata"});
      Feature("NoSkinnyMetadata");
    }
    if (Below(4) == 0) {
      Mkfs({"-O", "^no-holes"});
      Feature("HoleItems");
    }
    if (Below(6) == 0) {
      Mkfs({"-R", "^free-space-tree"});
      // The old cache would keep its own files among the data, which then moves by itself.
      recipe_.options.mount = "nospace_cache,";
      Feature("NoFreeSpaceTree");
    }
  }

  void ChooseMount() {
    const Choice& mount = kMounts[recipe_.seed % std::size(kMounts)];
    recipe_.options.mount += "commit=1,noatime";
    if (*mount.option != '\0') recipe_.options.mount += std::string(",") + mount.option;
    Feature(mount.feature);
  }

  std::mt19937 random_;
  Recipe recipe_;
};

}  // namespace

Recipe MakeRecipe(unsigned seed) { return Cook(seed).Make(); }

}  // namespace ZorvTest
