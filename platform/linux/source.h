// Shares that somebody has configured, as their source tells them: nothing of it has been looked at
// on the disk yet.
#ifndef PLATFORM_LINUX_SOURCE_H
#define PLATFORM_LINUX_SOURCE_H

#include <string>
#include <vector>

namespace ZorvPlatform {

// How the snapshots lie in their directory.
enum class Layout {
  kNames,    // subvolumes with names as ReadSnapName reads them
  kFormat,   // subvolumes whose names are times in another format
  kSnapper,  // N/snapshot, with N/info.xml
};

struct ConfiguredShare {
  int source = 0;     // ZORV_SHARE_SOURCE_*
  std::string place;  // the file, with the line where there is one
  std::string name;
  std::string path;  // absolute
  Layout layout = Layout::kNames;
  std::string snapDir;    // absolute, or relative to `path`
  std::string format;     // for kFormat
  bool localTime = true;  // for kFormat: times are those of this machine's zone, else UTC

  // Whether it is left out, and with which reason, when its path is there and is no subvolume;
  // otherwise that is an error.
  bool onlyIfSubvolume = false;
};

// A share of a source that is none of the platform's, and why, in words that follow its name.
struct PassedBy {
  std::string place;
  std::string name;
  std::string why;
};

struct Configured {
  std::vector<ConfiguredShare> shares;
  std::vector<PassedBy> passedBy;
};

// What the platform's own file says beside its shares.
struct SourceSwitches {
  bool volumes = true;
  bool samba = true;
  bool snapper = true;
};

// Whether a source may give a share this name: a component of a path of at most 255 bytes without
// control characters, not "." and not "..".
bool CanBeConfigured(const std::string& name);

// An absolute path is taken as it is, another as one below `directory`.
std::string PathBelow(const std::string& directory, const std::string& path);

}  // namespace ZorvPlatform

#endif
