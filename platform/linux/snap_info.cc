// What the source of a share knows of a snapshot.
#include <memory>
#include <string>

#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/share.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/snap_info";

// The public record with the texts that it points to.
struct OwnedInfo : ZORVSHARESNAPINFO {
  std::string sourceNameText;
};

int GetInfo(const char* snapName, ZORVSHARESNAPINFO** info) {
  auto owned = std::make_unique<OwnedInfo>();
  owned->sourceNameText = snapName;
  owned->sourceName = owned->sourceNameText.c_str();
  owned->number = 0;
  owned->type = owned->description = owned->problem = "";
  *info = owned.release();
  return 0;
}

}  // namespace

int ZORVShareSnapInfoGet(const struct _tag_ZORVSHARE* share, const char* snapName,
                         ZORVSHARESNAPINFO** info) {
  if (share == nullptr || snapName == nullptr || info == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return GetInfo(snapName, info); });
}

void ZORVShareSnapInfoFree(ZORVSHARESNAPINFO* info) { delete static_cast<OwnedInfo*>(info); }
