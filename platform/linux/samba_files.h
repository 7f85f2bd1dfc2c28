// The files that Samba's configuration consists of, as far as they tell it themselves.
#ifndef PLATFORM_LINUX_SAMBA_FILES_H
#define PLATFORM_LINUX_SAMBA_FILES_H

#include <string>

namespace ZorvPlatform {

inline constexpr char kSmbConf[] = "/etc/samba/smb.conf";

struct SambaFiles {
  bool there = false;         // smb.conf exists
  bool shadowCopies = false;  // some part may speak of shadow copies
  // Tells all parts in this state from those in any other: paths, sizes, times.  "": a part cannot
  // be told (a path with macros, the registry), or has changed a moment ago and may change again
  // without its time showing it.
  std::string state;
};

// Reads smb.conf and what it includes.  0, or -1 with the error record set.
int ReadSambaFiles(SambaFiles* files);

}  // namespace ZorvPlatform

#endif
