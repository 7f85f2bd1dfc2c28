// What the source of a share knows of a snapshot.
#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/share.h"
#include "platform/linux/snap_name.h"
#include "platform/linux/snap_source.h"
#include "platform/linux/snap_view.h"
#include "platform/linux/snapper_info.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/snap_info";

// The public record with the texts that it points to.
struct OwnedInfo : ZORVSHARESNAPINFO {
  std::string sourceNameText;
  SnapperInfo told;
  std::string why;

  void PointToTexts() {
    sourceName = sourceNameText.c_str();
    number = told.number;
    type = told.type.c_str();
    description = told.description.c_str();
    problem = why.c_str();
  }
};

// The number in a name of a snapper snapshot.  0: no such snapshot has the name.
uint64_t NumberOf(const char* snapName) {
  SnapName name;
  return ReadSnapName(snapName, &name) ? name.number : ReadSnapNumber(snapName);
}

int TellOfSnapper(const Share& share, const char* snapName, OwnedInfo* info) {
  const uint64_t number = NumberOf(snapName);
  if (number == 0) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  UniqueFd directory;
  const int there = OpenSnapDir(share, &directory);
  if (there < 0) return -1;
  info->sourceNameText = std::to_string(number);
  const UniqueFd place(openat(directory.Get(), info->sourceNameText.c_str(),
                              O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (there == 0 || !place.Valid()) return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
  (void)ReadSnapperInfoIn(place.Get(), number, &info->told, &info->why);
  info->told.number = number;
  return 0;
}

// The name of the folder, which the view leads to.
int TellOfFormat(const Share& share, const char* snapName, OwnedInfo* info) {
  const std::string target =
      CanBeConfigured(snapName) ? ReadSnapViewLink(share.nameText, snapName) : "";
  if (target.empty()) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  info->sourceNameText = target.substr(target.rfind('/') + 1);
  return 0;
}

int Tell(const Share& share, const char* snapName, OwnedInfo* info) {
  switch (share.layout) {
    case Layout::kSnapper:
      return TellOfSnapper(share, snapName, info);
    case Layout::kFormat:
      return TellOfFormat(share, snapName, info);
    case Layout::kNames:
      info->sourceNameText = snapName;
      break;
  }
  return 0;
}

int GetInfo(const Share& share, const char* snapName, ZORVSHARESNAPINFO** info) {
  auto owned = std::make_unique<OwnedInfo>();
  if (Tell(share, snapName, owned.get()) < 0) return -1;
  owned->PointToTexts();
  *info = owned.release();
  return 0;
}

}  // namespace

int ZORVShareSnapInfoGet(const struct _tag_ZORVSHARE* share, const char* snapName,
                         ZORVSHARESNAPINFO** info) {
  if (share == nullptr || snapName == nullptr || info == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return GetInfo(ShareOf(share), snapName, info); });
}

void ZORVShareSnapInfoFree(ZORVSHARESNAPINFO* info) { delete static_cast<OwnedInfo*>(info); }
