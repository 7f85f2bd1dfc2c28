#include "cli/snapshot_choice.h"

#include <fmt/format.h>
#include <zorvplatform/share.h>

#include <memory>

#include "cli/failure.h"
#include "cli/nearest.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

struct ShareFree {
  void operator()(ZORVSHARE* share) const { ZORVShareFree(share); }
};
struct InfoFree {
  void operator()(ZORVSHARESNAPINFO* info) const { ZORVShareSnapInfoFree(info); }
};

// The only place of the name; nothing for none and for several.
std::optional<size_t> OnlyPlace(const std::vector<std::string>& names, const std::string& name) {
  std::optional<size_t> place;
  for (size_t i = 0; i < names.size(); ++i) {
    if (names[i] != name) continue;
    if (place) return std::nullopt;
    place = i;
  }
  return place;
}

}  // namespace

std::vector<std::string> SourceNames(const std::string& share,
                                     const std::vector<Snapshot>& snapshots) {
  ZORVSHARE* record = nullptr;
  if (ZORVShareGet(share.c_str(), &record) != 0) record = nullptr;
  const std::unique_ptr<ZORVSHARE, ShareFree> owner(record);
  std::vector<std::string> names(snapshots.size());
  for (size_t i = 0; record != nullptr && i < snapshots.size(); ++i) {
    ZORVSHARESNAPINFO* told = nullptr;
    if (ZORVShareSnapInfoGet(record, snapshots[i].name.c_str(), &told) != 0) continue;
    const std::unique_ptr<ZORVSHARESNAPINFO, InfoFree> info(told);
    if (snapshots[i].name != info->sourceName) names[i] = info->sourceName;
  }
  return names;
}

std::optional<size_t> FindSnapshot(const std::string& share, const std::vector<Snapshot>& snapshots,
                                   const std::string& name) {
  for (size_t i = 0; i < snapshots.size(); ++i)
    if (snapshots[i].name == name) return i;
  return name.empty() ? std::nullopt : OnlyPlace(SourceNames(share, snapshots), name);
}

size_t RequireSnapshot(const std::string& share, const std::vector<Snapshot>& snapshots,
                       const std::string& name) {
  if (const std::optional<size_t> place = FindSnapshot(share, snapshots, name)) return *place;
  std::vector<std::string> known;
  for (const Snapshot& snapshot : snapshots) known.push_back(snapshot.name);
  for (const std::string& ofSource : SourceNames(share, snapshots))
    if (!ofSource.empty()) known.push_back(ofSource);
  throw Failure(
      kUnknownSnapshot, fmt::format("share {} has no snapshot {}", Quoted(share), Quoted(name)),
      DidYouMean(name, known,
                 fmt::format("its snapshots are in {}", Quoted(SnapshotDirectoryOf(share)))));
}

}  // namespace ZorvSnapUsage
