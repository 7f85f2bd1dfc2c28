// What snapper keeps of a snapshot beside it, in info.xml.
#ifndef PLATFORM_LINUX_SNAPPER_INFO_H
#define PLATFORM_LINUX_SNAPPER_INFO_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace ZorvPlatform {

// What lies in the directory of each snapshot, which is called by its number.
inline constexpr char kSnapperSubvolume[] = "snapshot";
inline constexpr char kSnapperInfoFile[] = "info.xml";

// Descriptions are lines that people type, the rest is a few hundred bytes.
inline constexpr size_t kMostSnapperInfoBytes = 1 << 20;

struct SnapperInfo {
  uint64_t number = 0;
  time_t time = 0;
  std::string type;  // "single", "pre" or "post"
  std::string description;
};

// Reads the content of an info.xml.  Number, time and type must be there and make sense; what else
// there is besides the description is passed over.  A document type, with which a file could make
// much of little, is refused.  False: `why` says what is wrong with it, and where.
bool ReadSnapperInfo(const std::string& xml, SnapperInfo* info, std::string* why);

// Reads the info.xml in the open directory of the snapshot of this number.
bool ReadSnapperInfoIn(int directory, uint64_t number, SnapperInfo* info, std::string* why);

}  // namespace ZorvPlatform

#endif
