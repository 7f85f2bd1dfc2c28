#include "cli/table_source.h"

#include <time.h>

#include <optional>

#include "cli/file_system.h"

namespace ZorvSnapUsage {

KeptTable TableOfNow(const std::string& share, const std::vector<Snapshot>& snapshots,
                     Silence silence) {
  std::vector<unsigned long long> ids;
  for (const Snapshot& snapshot : snapshots) ids.push_back(snapshot.subvolumeID);
  const std::string& directory = snapshots.front().path;
  const std::optional<FileSystemState> state = StateOfFileSystem(directory);
  if (state)
    if (std::optional<KeptTable> kept = FindTable(share, state->id, state->generation, ids))
      return std::move(*kept);
  KeptTable read = {"", 0, AskForTable(directory, ids, silence)};
  read.taken = time(nullptr);
  if (!state) return read;
  read.fileSystemID = state->id;
  KeepTable(share, read);
  return read;
}

void KeepAsOfNow(const std::string& share, KeptTable& kept) {
  kept.taken = time(nullptr);
  KeepTable(share, kept);
}

}  // namespace ZorvSnapUsage
