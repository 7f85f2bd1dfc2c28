#include "cli/share.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <zorvbtrfssnapusage/btrfs_tool.h>
#include <zorvbtrfssnapusage/utils.h>
#include <zorvplatform/share.h>

#include <map>
#include <memory>
#include <set>

#include "base/unique_fd.h"
#include "cli/failure.h"
#include "cli/file_system.h"
#include "cli/nearest.h"
#include "cli/share_map.h"
#include "cli/standard_streams.h"
#include "cli/string_list.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

using ZorvBtrfsUsage::BtrfsTool;
using ZorvBtrfsUsage::Utils;

struct ShareFree {
  void operator()(ZORVSHARE* share) const { ZORVShareFree(share); }
};
using ShareRecord = std::unique_ptr<ZORVSHARE, ShareFree>;

// Null: the platform's error record says why. Asked of the platform itself, because the library's
// look-up waits up to a minute for a volume that is not there.
ShareRecord FindShare(const std::string& share) {
  ZORVSHARE* record = nullptr;
  return ShareRecord(ZORVShareGet(share.c_str(), &record) == 0 ? record : nullptr);
}

// What the platform says of its last failure, on one line; empty when it has no words for it.
std::string PlatformWords() { return Escaped(PLATCErrorGetText()); }

// The shares as far as they can be told, and what has to be said of them.
struct Survey {
  StringList names, missing, hidden;

  // False: the platform's error record says why.
  bool Make() { return ZORVShareSurvey(names.Ref(), missing.Ref(), hidden.Ref()) >= 0; }
};

std::vector<std::string> KnownShares() {
  Survey survey;
  return survey.Make() ? survey.names.Strings() : std::vector<std::string>();
}

const char* WordOfSource(int source) {
  switch (source) {
    case ZORV_SHARE_SOURCE_SAMBA:
      return "samba";
    case ZORV_SHARE_SOURCE_SNAPPER:
      return "snapper";
    case ZORV_SHARE_SOURCE_FILE:
      return "file";
    default:
      return "volume";
  }
}

std::string LastComponent(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Whether a listed snapshot has been deleted since, as snapshots are.
bool IsGone(const std::string& path) {
  const int isSubvolume = BtrfsTool::SubvolTest(path.c_str());
  return isSubvolume == 0 || isSubvolume == -ENOENT || isSubvolume == -ENOTDIR;
}

// Why, where it can be seen: somebody may have mounted something over the directory that lets
// nobody else in.
Failure CannotBeListed(const std::string& share) {
  const std::string what = fmt::format("the snapshots of share {} cannot be listed", Quoted(share));
  if (!PlatformWords().empty()) return PlatformFailure(what);
  const std::string directory = SnapshotDirectoryOf(share);
  const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
  if (fd.Valid() || errno == ENOENT) return SystemFailure(what);
  return Failure(
      kSystemFailure,
      fmt::format("{}, {} cannot be opened ({})", what, Quoted(directory), strerror(errno)),
      fmt::format("see what is mounted there with: findmnt -T {}", ShellWord(directory)));
}

// The file system that the path lies on; empty when the kernel does not say.
std::string FileSystemOf(const std::string& path) {
  const std::optional<FileSystemState> state = StateOfFileSystem(path);
  return state ? state->id : "";
}

// What is mounted among the snapshots of a share: subvolumes of another file system, whose IDs mean
// others here, those of its own in place of others, and those that are there twice.
class SnapshotPlaces {
 public:
  SnapshotPlaces(const std::string& home, const std::vector<Snapshot>& snapshots)
      : home_(FileSystemOf(home)) {
    for (const Snapshot& snapshot : snapshots)
      if (!IsMounted(snapshot.path)) inPlace_.emplace(snapshot.subvolumeID, &snapshot);
  }

  // What is wrong with it, in words; empty: it is a snapshot in its place, and the first that is
  // there with its ID.
  std::string WhyNot(const Snapshot& snapshot) const {
    const std::string its = FileSystemOf(snapshot.path);
    if (!its.empty() && !home_.empty() && its != home_)
      return "on another file system than its share";
    const auto same = inPlace_.find(snapshot.subvolumeID);
    if (same == inPlace_.end()) return "only mounted there";
    return same->second == &snapshot ? "" : "the same as " + Quoted(same->second->name);
  }

 private:
  const std::string home_;
  std::map<unsigned long long, const Snapshot*> inPlace_;
};

// Takes out what is mounted among the snapshots, and says so.
std::vector<Snapshot> WithoutMounted(const std::string& share,
                                     const std::vector<Snapshot>& snapshots) {
  const std::optional<ShareOrigin> place = FindPlace(share);
  if (!place) return snapshots;
  static std::set<std::string> said;  // by their paths; a command may list them more than once
  const SnapshotPlaces places(place->path, snapshots);
  std::vector<Snapshot> inPlace;
  for (const Snapshot& snapshot : snapshots) {
    const std::string why = places.WhyNot(snapshot);
    if (why.empty())
      inPlace.push_back(snapshot);
    else if (said.insert(snapshot.path).second)
      Note(fmt::format("snapshot {} is left out, it is {}", Quoted(snapshot.name), why));
  }
  return inPlace;
}

// Gives up when a share that is not there has been calculated on a volume that is not there either.
void RequireVolumeOf(const std::string& share) {
  if (const std::optional<std::string> volume = MissingVolumeOf(share))
    throw Failure(kShareOutOfReach,
                  fmt::format("share {} cannot be reached for the moment: {}, where it was, is not "
                              "there",
                              Quoted(share), *volume),
                  fmt::format("mount its volume; if the share is gone for good, remove its record "
                              "with: zorv-snapusage clean {}",
                              ShellWord(share)));
}

}  // namespace

Failure PlatformFailure(const std::string& what) {
  const std::string words = PlatformWords();
  if (words.empty()) return SystemFailure(what);
  const bool configured = PLATCErrGet() == PLATC_ERR_CONFIGURATION;
  return Failure(configured ? kWrongConfiguration : kSystemFailure, what, words);
}

void RefuseUnknownShare(const std::string& share) {
  throw Failure(kUnknownShare, fmt::format("there is no share {}", Quoted(share)),
                DidYouMean(share, KnownShares(),
                           "a share is a subvolume directly below /volume1, /volume2, ..."));
}

void RequireShare(const std::string& share) {
  if (FindShare(share)) return;
  const std::string words = PlatformWords();
  switch (PLATCErrGet()) {
    case PLATC_ERR_NO_SUCH_SHARE:
      RequireVolumeOf(share);
      if (words.empty()) RefuseUnknownShare(share);
      throw Failure(kUnknownShare, fmt::format("there is no share {}", Quoted(share)), words);
    case PLATC_ERR_RETRY:
      throw Failure(kShareOutOfReach,
                    fmt::format("share {} cannot be reached for the moment{}", Quoted(share),
                                words.empty() ? "" : ": " + words),
                    "mount its volume, or try again");
    case PLATC_ERR_VOLUME_PATH:
    case PLATC_ERR_CONFIGURATION:
      throw Failure(kWrongConfiguration, words);
    default:
      throw PlatformFailure(fmt::format("share {} cannot be looked up", Quoted(share)));
  }
}

std::optional<ShareOrigin> FindPlace(const std::string& share) {
  const ShareRecord record = FindShare(share);
  ZORVSHAREINFO info = {};
  if (!record || ZORVShareInfoGet(record.get(), &info) < 0) return std::nullopt;
  return ShareOrigin{info.volumePath, info.path, WordOfSource(info.source), info.place};
}

ShareNames AllShares() {
  Survey survey;
  if (!survey.Make()) {
    if (PLATCErrGet() == PLATC_ERR_RETRY)
      throw Failure(kShareOutOfReach, "the shares cannot be listed for the moment",
                    PlatformWords().empty() ? "try again" : PlatformWords());
    throw PlatformFailure("the shares cannot be listed");
  }
  const std::vector<std::string> missing = survey.missing.Strings();
  for (const std::string& line : missing) Say("note: shares may be missing, " + Escaped(line));
  for (const std::string& line : survey.hidden.Strings()) Say("note: " + Escaped(line));
  return {survey.names.Strings(), missing.empty() ? kOk : kShareOutOfReach};
}

bool ShareIsThere(const std::string& share) { return FindShare(share) != nullptr; }

bool ShareMayExist(const std::string& share) {
  return ShareIsThere(share) || PLATCErrGet() != PLATC_ERR_NO_SUCH_SHARE ||
         MissingVolumeOf(share).has_value();
}

std::vector<Snapshot> SnapshotsOf(const std::string& share) {
  StringList paths;
  if (Utils::ShareSnapListGet(share, paths.Ref(), Json::Value()) != 0) throw CannotBeListed(share);
  std::vector<Snapshot> snapshots;
  for (const std::string& path : paths.Strings()) {
    const std::string name = LastComponent(path);
    unsigned long long subvolumeID = 0;
    if (BtrfsTool::SubvolRootIdLookup(path.c_str(), subvolumeID) != 0) {
      if (IsGone(path)) continue;
      throw SystemFailure(
          fmt::format("snapshot {} of share {} cannot be looked at", Quoted(name), Quoted(share)));
    }
    snapshots.push_back({name, path, subvolumeID, TimeInName(name), CreationTime(path)});
  }
  return WithoutMounted(share, snapshots);
}

bool IsRecordable(const Snapshot& snapshot) { return ValidUtf8(snapshot.name) == snapshot.name; }

std::optional<time_t> TimeInName(const std::string& snapshotName) {
  time_t time = 0;
  if (ZORVShareSnapTimeGet(snapshotName.c_str(), &time) < 0) return std::nullopt;
  return time;
}

std::string NextWithoutSnapshots(const std::string& share) {
  const std::string directory = Quoted(SnapshotDirectoryOf(share));
  const ShareRecord record = FindShare(share);
  ZORVSHAREINFO info;
  const char* format = "";
  const int unfit = record ? ZORVShareSnapUnfit(record.get(), &format) : 0;
  if (unfit <= 0 || ZORVShareInfoGet(record.get(), &info) != 0)
    return "make read-only snapshots of it in " + directory;
  return fmt::format("{} in {} {} not fit its format {}; correct that in {}",
                     CountOf(static_cast<unsigned>(unfit), "subvolume"), directory,
                     unfit == 1 ? "does" : "do", Quoted(format), Escaped(info.place));
}

std::string SnapshotDirectoryOf(const std::string& share) {
  const ShareRecord record = FindShare(share);
  ZORVSHAREINFO info;
  return record && ZORVShareInfoGet(record.get(), &info) == 0 ? info.snapDir : "";
}

}  // namespace ZorvSnapUsage
