#include "cli/current_report.h"

#include <fmt/format.h>

#include <optional>

#include "cli/failure.h"
#include "cli/file_system.h"
#include "cli/share.h"
#include "cli/share_map.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

// Gives up when a share that is gone may have another name now: its volume still has one of the
// result's subvolumes.
void RequireDeleted(const std::string& share, const Result& result) {
  const std::optional<std::string> volume = RecordedVolumeOf(share);
  for (const unsigned long long id : result.subvolumeIDs)
    if (volume && HasSubvolume(*volume, id))
      throw Failure(kUnknownShare,
                    fmt::format("share {} is gone, but {} still has a subvolume with the ID {}",
                                Quoted(share), *volume, id),
                    "see whether the share has another name now: zorv-snapusage shares");
}

// The share's snapshots; none when it has been deleted. Gives up when they cannot be listed.
std::vector<Snapshot> SnapshotsThere(const std::string& share, const Result& result) {
  if (!ShareMayExist(share)) {
    RequireDeleted(share, result);
    return {};
  }
  RequireShare(share);
  return SnapshotsOf(share);
}

}  // namespace

CurrentReport ReportOfNow(const std::string& share, const Result& result,
                          const TablesOfShare& tables, const AskedOf& asked) {
  CurrentReport now;
  try {
    now.snapshots = SnapshotsThere(share, result);
    now.present = SeenBy(share, result, now.snapshots, tables);
    now.report = MakeReport(share, result, now.present, asked(now.present));
  } catch (const Failure& failure) {
    Note(fmt::format("which snapshots are still there cannot be told: {}", failure.what()));
    now.report = MakeReportAlone(share, result);
  }
  return now;
}

void NoteOtherFileSystem(const Report& report) {
  if (!report.otherFileSystem) return;
  Note(
      fmt::format("the share lies on another file system than at the time of this result, or the "
                  "clock was set back since: its snapshots are not those of the result; "
                  "calculate them with: zorv-snapusage run {}",
                  ShareWord(report.share)));
}

}  // namespace ZorvSnapUsage
