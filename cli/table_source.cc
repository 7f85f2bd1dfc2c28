#include "cli/table_source.h"

#include <optional>

#include "cli/file_system.h"
#include "cli/share_place.h"

namespace ZorvSnapUsage {

KeptTable TableOfNow(const std::string& share, const std::vector<Snapshot>& snapshots,
                     Silence silence) {
  std::vector<unsigned long long> ids;
  for (const Snapshot& snapshot : snapshots) ids.push_back(snapshot.subvolumeID);
  const std::string directory = PlaceOfShare(share).path;
  const Moment before = Moment::Now();
  const std::optional<FileSystemState> state = StateOfFileSystem(directory);
  if (state)
    if (std::optional<KeptTable> kept = FindTable(share, state->id, state->generation, ids))
      return std::move(*kept);
  KeptTable read = {"", before, AskForTable(directory, ids, silence)};
  const std::optional<FileSystemState> after = StateOfFileSystem(directory);
  if (!state || !after || after->id != state->id) return read;
  read.fileSystemID = state->id;
  KeepTable(share, read);
  return read;
}

void KeepAsOf(Moment moment, const std::string& share, KeptTable& kept) {
  kept.taken = moment;
  KeepTable(share, kept);
}

}  // namespace ZorvSnapUsage
