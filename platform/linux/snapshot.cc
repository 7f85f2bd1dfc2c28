// Snapshots of a share as the library sees them: their names, in order, and where they are found.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/selector.h"
#include "platform/linux/share.h"
#include "platform/linux/snap_name.h"
#include "platform/linux/snap_source.h"
#include "platform/linux/snap_view.h"
#include "platform/linux/sz_list.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/snapshot";

bool Before(const Snapshot& a, const Snapshot& b) {
  if (a.timed != b.timed) return a.timed;
  if (a.timed && a.read.time != b.read.time) return a.read.time < b.read.time;
  if (a.timed && a.read.number != b.read.number) return a.read.number < b.read.number;
  return a.name < b.name;
}

// The links of a view: each snapshot by its name.
std::map<std::string, std::string> LinksTo(const std::vector<Snapshot>& snapshots) {
  std::map<std::string, std::string> links;
  for (const Snapshot& snapshot : snapshots) links[snapshot.name] = snapshot.target;
  return links;
}

// Reads the snapshots of a share with a view, which is then as they are.  0, or -1 with the error
// record set.
int ReadIntoView(const Share& share, std::vector<Snapshot>* snapshots) {
  SnapView view;
  std::string why;
  if (!view.Open(share.nameText, &why)) {
    return FailSaying(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL, why);
  }
  if (ReadSnapshots(share, snapshots) < 0) return -1;
  if (view.Renew(LinksTo(*snapshots), &why)) return 0;
  return FailSaying(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL, why);
}

// Keeps those that pass the selectors.  0, or -1 with the error record set.
int Select(const ZORVSHARESNAPSELECTOR* selectors, std::vector<Snapshot>* snapshots) {
  std::vector<Snapshot> passed;
  for (Snapshot& snapshot : *snapshots) {
    const int selected = PassesAll(selectors, snapshot.name.c_str());
    if (selected < 0) return -1;
    if (selected > 0) passed.push_back(std::move(snapshot));
  }
  *snapshots = std::move(passed);
  return 0;
}

int ListSnapshots(const Share& share, PLATSZLIST* list, const ZORVSHARESNAPSELECTOR* selectors) {
  std::vector<Snapshot> snapshots;
  const int read =
      share.HasView() ? ReadIntoView(share, &snapshots) : ReadSnapshots(share, &snapshots);
  if (read < 0 || Select(selectors, &snapshots) < 0) return -1;
  std::sort(snapshots.begin(), snapshots.end(), Before);

  std::vector<std::string> names;
  for (Snapshot& snapshot : snapshots) names.push_back(std::move(snapshot.name));
  return AppendAll(PLATFORM_HERE, list, names);
}

int GetOrCreateSnapDir(const Share& share, char* dir, size_t size, bool create) {
  const std::string path = share.HasView() ? SnapViewPath(share.nameText) : share.snapDir;
  if (path.size() >= size) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  if (create && !share.HasView() && mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
  }
  memcpy(dir, path.c_str(), path.size() + 1);
  return 1;
}

}  // namespace

int ZORVShareSnapList(const struct _tag_ZORVSHARE* share, PLATSZLIST** names,
                      const ZORVSHARESNAPSELECTOR* selectors) {
  if (share == nullptr || names == nullptr || *names == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1,
                 [&] { return ListSnapshots(ShareOf(share), *names, selectors); });
}

int ZORVShareSnapGetOrCreateSnapDir(const struct _tag_ZORVSHARE* share, char* dir, int size,
                                    int flags) {
  if (share == nullptr || dir == nullptr || size < 1 ||
      (flags != ZORV_SNAP_DIR_GET && flags != ZORV_SNAP_DIR_CREATE)) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] {
    return GetOrCreateSnapDir(ShareOf(share), dir, static_cast<size_t>(size),
                              flags == ZORV_SNAP_DIR_CREATE);
  });
}

int ZORVShareSnapUnfit(const struct _tag_ZORVSHARE* share, const char** format) {
  if (share == nullptr || format == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] {
    const Share& known = ShareOf(share);
    const int unfit = CountUnfit(known);
    if (unfit >= 0) *format = known.layout == Layout::kFormat ? known.format.c_str() : "";
    return unfit;
  });
}

int ZORVShareSnapTimeGet(const char* snapName, time_t* time) {
  SnapName name;
  if (snapName == nullptr || time == nullptr || !ReadSnapName(snapName, &name)) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  *time = name.time;
  return 0;
}
