// Shares: the subvolumes directly below the volumes, and those that somebody has configured.
//
//   on the volumes       one volume, all of them
//   configured           what the sources tell, and where it is
//   found in both        one share, or a name that is refused
//   surveyed             what is there, and what is missing from it
#include "platform/linux/share.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/configured_share.h"
#include "platform/linux/directory.h"
#include "platform/linux/error.h"
#include "platform/linux/file_system.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/samba.h"
#include "platform/linux/shares_file.h"
#include "platform/linux/shares_text.h"
#include "platform/linux/snapper.h"
#include "platform/linux/sz_list.h"
#include "platform/linux/volume.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/share";

// Names that begin otherwise are the system's own directories.
bool ValidName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos && name[0] != '.' && name[0] != '@' &&
         name[0] != '#';
}

enum class Found { kShare, kNone, kError };

// Whether `name` is a share on the volume; for kError errno says why it cannot be told.  A link is
// no share, and neither is what another file system has mounted there, which anybody may do who
// owns a directory here (FUSE); it is not opened, which that one could refuse.
Found Look(const Volume& volume, const std::string& name) {
  const UniqueFd place(
      openat(volume.root.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!place.Valid()) {
    const bool none =
        errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG;
    return none ? Found::kNone : Found::kError;
  }
  const int subvolume = IsSubvolume(place.Get());
  if (subvolume <= 0) return subvolume == 0 ? Found::kNone : Found::kError;
  const UniqueFd fd(openat(place.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FileSystem fileSystem;
  if (!fd.Valid() || !GetFileSystem(fd.Get(), &fileSystem)) return Found::kError;
  return fileSystem == volume.fileSystem ? Found::kShare : Found::kNone;
}

// Adds the names of the volume's shares.  False: it is not there or cannot be read to its end;
// errno says why.
bool AddSharesOf(const Volume& volume, std::set<std::string>* names) {
  if (!volume.root.Valid()) {
    errno = volume.error;
    return false;
  }
  std::vector<DirEntry> entries;
  if (!ReadDir(volume.root, &entries)) return false;

  for (const DirEntry& entry : entries) {
    if (!ValidName(entry.name)) continue;
    if (entry.type != DT_DIR && entry.type != DT_UNKNOWN) continue;
    const Found found = Look(volume, entry.name);
    if (found == Found::kError) return false;
    if (found == Found::kShare) names->insert(entry.name);
  }
  return true;
}

// Adds the names of all volumes' shares.  0, or -1 with the error record set.
int AddSharesOfVolumes(std::set<std::string>* names) {
  std::vector<Volume> volumes;
  if (!ReadVolumes(&volumes)) return Fail(PLATFORM_HERE, PLATC_ERR_RETRY);
  for (const Volume& volume : volumes) {
    if (AddSharesOf(volume, names)) continue;
    return FailSaying(PLATFORM_HERE, PLATC_ERR_RETRY, WhyOutOfReach(volume, errno));
  }
  return 0;
}

std::unique_ptr<Share> NamedShare(const std::string& name) {
  auto share = std::make_unique<Share>();
  share->nameText = name;
  share->name = share->nameText.data();
  return share;
}

std::unique_ptr<Share> ShareOnVolume(const Volume& volume, const std::string& name) {
  std::unique_ptr<Share> share = NamedShare(name);
  share->source = ZORV_SHARE_SOURCE_VOLUME;
  share->volume = VolumePath(volume.number);
  share->place = share->volume;
  share->path = share->volume + "/" + name;
  share->snapDir = share->path + "/" + kVolumeSnapDir;
  return share;
}

// The share on the first volume that has it; only when none has it do the volumes that could not be
// asked decide why not.  0, or the code that an error record has to get, with its words in `why`;
// errno belongs to it.
unsigned int FindOnVolumes(const std::string& name, std::unique_ptr<Share>* share,
                           std::string* why) {
  if (!ValidName(name)) return PLATC_ERR_NO_SUCH_SHARE;
  std::vector<Volume> volumes;
  if (!ReadVolumes(&volumes)) return CodeOfRefusal(errno);

  int missingError = 0;
  int error = 0;
  for (const Volume& volume : volumes) {
    if (!volume.root.Valid()) {
      missingError = volume.error;
      *why = WhyOutOfReach(volume, volume.error);
      continue;
    }
    const Found found = Look(volume, name);
    if (found == Found::kShare) {
      *share = ShareOnVolume(volume, name);
      return 0;
    }
    if (found == Found::kError && !ForTheMoment(error)) error = errno;
  }
  errno = missingError != 0 ? missingError : error;
  if (missingError != 0 || ForTheMoment(error)) return PLATC_ERR_RETRY;
  return error != 0 ? PLATC_ERR_SYSTEM_CALL : PLATC_ERR_NO_SUCH_SHARE;
}

// ---- Configured --------------------------------------------------------------------------------

// What all sources but the volumes tell.  0, or -1 with the error record set.
int ReadSources(Configured* configured, SourceSwitches* switches) {
  if (ReadSharesFile(configured, switches) < 0) return -1;
  if (switches->snapper && ReadSnapper(configured) < 0) return -1;
  return switches->samba ? ReadSamba(configured) : 0;
}

// The shares that the sources know by this name; what is in the platform's own file stands alone.
std::vector<ConfiguredShare> SharesNamed(const std::string& name, const Configured& configured) {
  std::vector<ConfiguredShare> named;
  for (const ConfiguredShare& share : configured.shares) {
    if (share.name != name) continue;
    if (share.source == ZORV_SHARE_SOURCE_FILE) return {share};
    named.push_back(share);
  }
  return named;
}

bool IsPassedBy(const ConfiguredShare& share) {
  return share.onlyIfSubvolume && IsNoSubvolume(share);
}

// Takes out those that are passed by, and notes why.
void PassBy(std::vector<ConfiguredShare>* shares, Configured* configured) {
  std::vector<ConfiguredShare> rest;
  for (ConfiguredShare& share : *shares) {
    if (IsPassedBy(share)) {
      configured->passedBy.push_back({share.place, share.name, "its path is no btrfs subvolume"});
    } else {
      rest.push_back(std::move(share));
    }
  }
  *shares = std::move(rest);
}

std::unique_ptr<Share> ShareAt(const ConfiguredShare& known, const Location& location) {
  std::unique_ptr<Share> share = NamedShare(known.name);
  share->source = known.source;
  share->place = known.place;
  share->path = location.path;
  share->volume = location.volume;
  share->layout = known.layout;
  share->snapDir = location.snapDir;
  share->format = known.format;
  share->localTime = known.localTime;
  return share;
}

// ---- Found in both -----------------------------------------------------------------------------

// A share that has been found, and its subvolume.
struct Candidate {
  std::unique_ptr<Share> share;
  dev_t subvolume = 0;
};

int FailAmbiguous(const std::string& name, const Share& a, const Share& b) {
  return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                    "the name " + name + " is given to " + a.path + " (" + a.place + ") and to " +
                        b.path + " (" + b.place +
                        "); give one of them another name, or say in /etc/zorv-snapusage.conf "
                        "which one it is");
}

// One share of those that have one name: when they are one subvolume, that of the source with the
// highest number.  0, or -1 with the error record set.
int Unite(const std::string& name, std::vector<Candidate>* candidates, ZORVSHARE** share) {
  Candidate* best = &candidates->front();
  for (Candidate& candidate : *candidates) {
    if (candidate.subvolume != best->subvolume)
      return FailAmbiguous(name, *best->share, *candidate.share);
    if (candidate.share->source > best->share->source) best = &candidate;
  }
  *share = best->share.release();
  return 0;
}

// Why a subvolume of a volume is no share although its name is asked for; "": there is none.
std::string WhyPassedBy(const std::string& name) {
  std::vector<Volume> volumes;
  const bool ofTheSystem = !name.empty() && (name[0] == '@' || name[0] == '#') && name.size() > 1;
  if (!ofTheSystem || name.find('/') != std::string::npos || !ReadVolumes(&volumes)) return "";
  for (const Volume& volume : volumes) {
    if (!volume.root.Valid() || Look(volume, name) != Found::kShare) continue;
    const std::string path = VolumePath(volume.number) + "/" + name;
    return path + " is passed by, because systems begin the names of their own subvolumes with " +
           name[0] + "; make it a share in " + kSharesFile + ", as [" + name.substr(1) +
           "] with path = " + path;
  }
  return "";
}

int FailUnknown(const std::string& name, const Configured& configured, bool volumes) {
  for (const PassedBy& passed : configured.passedBy) {
    if (passed.name != name) continue;
    return FailSaying(PLATFORM_HERE, PLATC_ERR_NO_SUCH_SHARE,
                      "share " + name + " of " + passed.place + " is passed by: " + passed.why);
  }
  const std::string why = volumes ? WhyPassedBy(name) : "";
  if (!why.empty()) return FailSaying(PLATFORM_HERE, PLATC_ERR_NO_SUCH_SHARE, why);
  return Fail(PLATFORM_HERE, PLATC_ERR_NO_SUCH_SHARE);
}

// Adds the share of a volume.  0: or there is none, or it cannot be told and others are found; -1
// with the error record set.
int AddFromVolumes(const std::string& name, std::vector<Candidate>* candidates) {
  Candidate found;
  std::string why;
  const unsigned int failure = FindOnVolumes(name, &found.share, &why);
  if (failure == PLATC_ERR_NO_SUCH_SHARE || (failure != 0 && !candidates->empty())) return 0;
  struct stat st;
  if (failure != 0) return FailSaying(PLATFORM_HERE, failure, why);
  if (lstat(found.share->path.c_str(), &st) != 0) return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
  found.subvolume = st.st_dev;
  candidates->push_back(std::move(found));
  return 0;
}

int FindShare(const std::string& name, ZORVSHARE** share) {
  Configured configured;
  SourceSwitches switches;
  if (ReadSources(&configured, &switches) < 0) return -1;
  std::vector<ConfiguredShare> named = SharesNamed(name, configured);
  PassBy(&named, &configured);

  std::vector<Candidate> candidates;
  for (const ConfiguredShare& known : named) {
    Location location;
    if (Locate(known, &location) < 0) return -1;
    candidates.push_back({ShareAt(known, location), location.subvolume});
  }
  const bool alone = !named.empty() && named.front().source == ZORV_SHARE_SOURCE_FILE;
  if (switches.volumes && !alone && AddFromVolumes(name, &candidates) < 0) return -1;
  return candidates.empty() ? FailUnknown(name, configured, switches.volumes)
                            : Unite(name, &candidates, share);
}

int EnumShares(PLATSZLIST* list) {
  Configured configured;
  SourceSwitches switches;
  std::set<std::string> names;
  if (ReadSources(&configured, &switches) < 0) return -1;
  if (switches.volumes && AddSharesOfVolumes(&names) < 0) return -1;
  for (const ConfiguredShare& share : configured.shares) {
    if (!IsPassedBy(share)) names.insert(share.name);
  }
  if (AppendAll(PLATFORM_HERE, list, {names.begin(), names.end()}) < 0) return -1;
  return static_cast<int>(names.size());
}

// ---- Surveyed ----------------------------------------------------------------------------------

struct Survey {
  std::map<std::string, std::string> paths;  // of the volumes' shares, by their names
  std::vector<std::string> missing;
  std::vector<std::string> hidden;
};

bool IsOneSubvolume(const std::string& a, const std::string& b) {
  struct stat ofA, ofB;
  return lstat(a.c_str(), &ofA) == 0 && lstat(b.c_str(), &ofB) == 0 && ofA.st_dev == ofB.st_dev;
}

// Whether somebody has written down which one the name stands for, or given this one another name.
bool IsSettled(const std::string& name, const std::string& path, const Configured& configured) {
  for (const ConfiguredShare& share : configured.shares) {
    if (share.source == ZORV_SHARE_SOURCE_FILE && (share.name == name || share.path == path))
      return true;
  }
  return false;
}

void SurveyVolume(const Volume& volume, const Configured& configured, Survey* survey) {
  std::set<std::string> names;
  if (!AddSharesOf(volume, &names)) {
    survey->missing.push_back(WhyOutOfReach(volume, errno));
    return;
  }
  for (const std::string& name : names) {
    const std::string path = VolumePath(volume.number) + "/" + name;
    const std::string& first = survey->paths.emplace(name, path).first->second;
    if (first == path || IsOneSubvolume(first, path) || IsSettled(name, path, configured)) continue;
    survey->hidden.push_back(path + " is hidden by " + first +
                             ", which has the same name; give it another one in " + kSharesFile +
                             ": a share with path = " + path);
  }
}

int SurveyShares(PLATSZLIST* list, PLATSZLIST* missing, PLATSZLIST* hidden) {
  Configured configured;
  SourceSwitches switches;
  std::vector<Volume> volumes;
  Survey survey;
  if (ReadSources(&configured, &switches) < 0) return -1;
  if (switches.volumes && !ReadVolumes(&volumes)) return Fail(PLATFORM_HERE, PLATC_ERR_RETRY);
  for (const Volume& volume : volumes) SurveyVolume(volume, configured, &survey);
  std::set<std::string> names;
  for (const auto& share : survey.paths) names.insert(share.first);
  for (const ConfiguredShare& share : configured.shares) {
    if (!IsPassedBy(share)) names.insert(share.name);
  }
  const bool added = AppendAll(PLATFORM_HERE, list, {names.begin(), names.end()}) == 0 &&
                     AppendAll(PLATFORM_HERE, missing, survey.missing) == 0 &&
                     AppendAll(PLATFORM_HERE, hidden, survey.hidden) == 0;
  return added ? static_cast<int>(names.size()) : -1;
}

}  // namespace

namespace ZorvPlatform {

const Share& ShareOf(const ZORVSHARE* share) { return static_cast<const Share&>(*share); }

}  // namespace ZorvPlatform

int ZORVShareGet(const char* name, struct _tag_ZORVSHARE** share) {
  if (name == nullptr || share == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return FindShare(name, share); });
}

void ZORVShareFree(struct _tag_ZORVSHARE* share) { delete static_cast<Share*>(share); }

int ZORVShareEnum(PLATSZLIST** names, int flags) {
  if (names == nullptr || *names == nullptr || flags != ZORV_SHARE_ENUM_ALL) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return EnumShares(*names); });
}

int ZORVShareSurvey(PLATSZLIST** names, PLATSZLIST** missing, PLATSZLIST** hidden) {
  for (PLATSZLIST** list : {names, missing, hidden}) {
    if (list == nullptr || *list == nullptr) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return SurveyShares(*names, *missing, *hidden); });
}

int ZORVShareInfoGet(const struct _tag_ZORVSHARE* share, ZORVSHAREINFO* info) {
  if (share == nullptr || info == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  const Share& known = ShareOf(share);
  *info = {known.source, known.place.c_str(), known.path.c_str(), known.volume.c_str(),
           known.snapDir.c_str()};
  return 0;
}
