#include "platform/linux/snapper.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/directory.h"
#include "platform/linux/error.h"
#include "platform/linux/lines.h"
#include "platform/linux/read_file.h"
#include "zorvplatform/share.h"

namespace ZorvPlatform {

namespace {

constexpr char kUnit[] = "platform/snapper";

constexpr char kConfigs[] = "/etc/snapper/configs";
constexpr char kSnapDir[] = ".snapshots";
constexpr size_t kMostConfigBytes = 1 << 20;

// What editors and package managers leave beside a configuration.
bool IsLeftOver(const std::string& name) {
  for (const char* end : {"~", ".bak", ".orig", ".swp", ".dpkg-old", ".dpkg-new", ".dpkg-dist",
                          ".dpkg-tmp", ".rpmsave", ".rpmnew"}) {
    const size_t length = strlen(end);
    if (name.size() > length && name.compare(name.size() - length, length, end) == 0) return true;
  }
  return name[0] == '.' || name[0] == '#';
}

// The value of KEY="value", KEY='value' or KEY=value; in double quotes a backslash takes the next
// character as it is.
std::string Unquoted(const std::string& value) {
  const char quote = value.empty() ? '\0' : value[0];
  if (quote != '"' && quote != '\'') return value.substr(0, value.find_first_of(" \t"));
  std::string text;
  for (size_t i = 1; i < value.size() && value[i] != quote; ++i) {
    if (quote == '"' && value[i] == '\\' && i + 1 < value.size()) ++i;
    text += value[i];
  }
  return text;
}

// The settings of a configuration; of a key that is there twice the last counts, as for snapper.
std::map<std::string, std::string> ReadSettings(const std::string& text) {
  std::map<std::string, std::string> settings;
  std::string_view rest = text;
  for (std::string_view whole; TakeLine(&rest, &whole);) {
    const std::string line = Trimmed(whole);
    const size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
    settings[line.substr(0, equals)] = Unquoted(line.substr(equals + 1));
  }
  return settings;
}

int ReadConfig(int directory, const std::string& name, Configured* configured) {
  const std::string place = std::string(kConfigs) + "/" + name;
  std::string text;
  if (!ReadRegularFile(directory, name.c_str(), /*flags=*/0, kMostConfigBytes, &text)) {
    return FailSaying(PLATFORM_HERE, CodeOfRefusal(errno),
                      place + " cannot be read: " + strerror(errno));
  }
  std::map<std::string, std::string> settings = ReadSettings(text);
  if (settings["FSTYPE"] != "btrfs") {
    configured->passedBy.push_back({place, name, "its FSTYPE is not btrfs"});
    return 0;
  }
  if (!CanBeConfigured(name)) {
    return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                      place + " has a name that no share can have");
  }
  if (settings["SUBVOLUME"][0] != '/') {
    return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                      place + " has no SUBVOLUME with an absolute path");
  }
  ConfiguredShare share;
  share.source = ZORV_SHARE_SOURCE_SNAPPER;
  share.place = place;
  share.name = name;
  share.path = settings["SUBVOLUME"];
  share.layout = Layout::kSnapper;
  share.snapDir = kSnapDir;
  configured->shares.push_back(std::move(share));
  return 0;
}

}  // namespace

int ReadSnapper(Configured* configured) {
  const Dir dir(opendir(kConfigs));
  std::vector<DirEntry> entries;
  if (dir == nullptr && errno == ENOENT) return 0;
  if (dir == nullptr || !ReadDir(dir.get(), &entries)) {
    return FailSaying(PLATFORM_HERE, CodeOfRefusal(errno),
                      std::string(kConfigs) + " cannot be read: " + strerror(errno));
  }
  for (const DirEntry& entry : entries) {
    if (entry.type == DT_DIR || IsLeftOver(entry.name)) continue;
    if (ReadConfig(dirfd(dir.get()), entry.name, configured) < 0) return -1;
  }
  return 0;
}

}  // namespace ZorvPlatform
