#include "engine/size/path_holders.h"

#include <algorithm>
#include <map>
#include <vector>

#include "engine/size/path_content.h"

namespace ZorvEngine {
namespace {

// A data extent to which some version refers.
struct WantedExtent {
  uint64_t bytenr;
  uint64_t bytes;
  HolderId referrers;  // the subvolumes whose versions do
  bool counted;        // nobody outside holds it
};

// The data extents of all versions, and who is seen to hold them.
class WantedExtents : public ExtentWatch {
 public:
  WantedExtents(ArrayMemory& memory, const SizeRequest& request)
      : referrers_(request.ids.size(), request.mostSetBytes),
        together_(referrers_),
        extents_(memory),
        memory_(memory) {}

  // The extents (rising) of the version that the subvolume at `position` has.
  void Add(size_t position, const BigArray<DataExtent>& extents) {
    BigArray<WantedExtent> merged(memory_);
    const WantedExtent* old = extents_.begin();
    for (const DataExtent& extent : extents) {
      for (; old != extents_.end() && old->bytenr < extent.bytenr; ++old) merged.Add(*old);
      together_.Clear();
      together_.Add(HolderSets::Only(position));
      if (old != extents_.end() && old->bytenr == extent.bytenr) together_.Add((old++)->referrers);
      merged.Add({extent.bytenr, extent.bytes, together_.Id(), false});
    }
    for (; old != extents_.end(); ++old) merged.Add(*old);
    extents_ = std::move(merged);
  }

  void Begin() override {
    for (WantedExtent& extent : extents_) extent.counted = false;
    groups_.clear();
    complete_ = true;
  }

  void TakeData(const HolderSets& sets, HolderId holder, uint64_t bytenr, uint64_t bytes) override {
    WantedExtent* const at = std::ranges::lower_bound(extents_.begin(), extents_.end(), bytenr, {},
                                                      &WantedExtent::bytenr);
    if (at == extents_.end() || at->bytenr != bytenr) return;
    at->counted = true;
    complete_ = complete_ && sets.IsComplete(holder);
    const auto [group, isNew] = groups_.try_emplace(holder);
    if (isNew) group->second.subvolumes = sets.Members(holder);
    ++group->second.extents;
    group->second.bytes += bytes;
  }

  void TakeTreeBlock(const HolderSets&, HolderId, uint64_t) override {}

  Status Groups(std::vector<HeldGroup>* out) {
    std::map<HolderId, HeldGroup> outside;
    for (const WantedExtent& extent : extents_) {
      if (extent.counted) continue;
      complete_ = complete_ && referrers_.IsComplete(extent.referrers);
      HeldGroup& group = outside[extent.referrers];
      group.outside = true;
      ++group.extents;
      group.bytes += extent.bytes;
    }
    if (!complete_)
      return Status::Failed(
          "more sets of subvolumes hold something than the memory for them has room for; ask with "
          "more --table-memory, or about fewer subvolumes");
    for (const auto& [id, group] : groups_) out->push_back(group);
    for (auto& [id, group] : outside) {
      group.subvolumes = referrers_.Members(id);
      out->push_back(group);
    }
    std::ranges::stable_sort(*out, [](const HeldGroup& a, const HeldGroup& b) {
      return a.outside != b.outside ? b.outside : a.bytes > b.bytes;
    });
    return Status();
  }

 private:
  HolderSets referrers_;
  HolderUnion together_;
  BigArray<WantedExtent> extents_;        // by rising addresses
  std::map<HolderId, HeldGroup> groups_;  // of what is counted, by the run's sets
  bool complete_ = true;
  ArrayMemory& memory_;
};

// Takes versions apart: the same one may be in many subvolumes.
class Versions {
 public:
  explicit Versions(HolderReport* report) : report_(*report) {}

  void Add(uint32_t position, const PathContent& content) {
    if (content.kind != PathContent::kFound) {
      report_.without.push_back(position);
      if (content.kind == PathContent::kNested) report_.nested.push_back(position);
      return;
    }
    const auto [at, isNew] = numbers_.try_emplace(content.hash, report_.versions.size());
    if (isNew) report_.versions.push_back({content.numbers, {}});
    report_.versions[at->second].subvolumes.push_back(position);
  }

 private:
  HolderReport& report_;
  std::map<Hash256, size_t> numbers_;
};

}  // namespace

Status PathHolders::Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                        SizeTable* out) {
  try {
    ArrayMemory memory(request.mostArrayBytes);
    WantedExtents wanted(memory, request);
    HolderReport report;
    {
      const PhaseTimer timer(progress.stats, "versions of the path");
      Versions versions(&report);
      for (uint32_t i = 0; i < request.ids.size(); ++i) {
        CommittedTrees::Subvolume subvolume;
        ENGINE_TRY(trees.FindAskedSubvolume(request.ids[i], &subvolume));
        PathContent content(memory);
        ENGINE_TRY(ReadPathContent(trees.Reader(), subvolume.root, path_, memory, &content));
        versions.Add(i, content);
        wanted.Add(i, content.extents);
      }
    }
    SizeRequest watched = request;
    watched.watch = &wanted;
    SizeTable table;
    ENGINE_TRY(count_.Run(trees, watched, progress, &table));
    ENGINE_TRY(wanted.Groups(&report.groups));
    report_ = std::move(report);
    *out = std::move(table);
    return Status();
  } catch (const NoArrayMemory& error) {
    return Status::Failed(error.what());
  }
}

}  // namespace ZorvEngine
