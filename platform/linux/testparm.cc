// What testparm prints.
//
//   the output       sections and parameters
//   the shares       those whose snapshots can be found, and why the others are left out
#include "platform/linux/testparm.h"

#include <cctype>
#include <map>
#include <string_view>
#include <vector>

#include "platform/linux/lines.h"
#include "platform/linux/name_format.h"
#include "platform/linux/samba_files.h"
#include "zorvplatform/share.h"

namespace ZorvPlatform {

namespace {

// The format that snapshots have when nobody says otherwise; in UTC it is one of ReadSnapName.
constexpr char kDefaultFormat[] = "@GMT-%Y.%m.%d-%H.%M.%S";
constexpr char kPlainFormat[] = "GMT-%Y.%m.%d-%H.%M.%S";

// Parameters by their names in lower case without blanks.
using Parameters = std::map<std::string, std::string>;

struct Section {
  std::string name;
  Parameters parameters;
};

std::string Normal(const std::string& key) {
  std::string normal;
  for (const char c : key) {
    if (c != ' ' && c != '\t') normal += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return normal;
}

// ---- The output --------------------------------------------------------------------------------

// Adds a line of the output.  False: it is none that testparm prints.
bool AddLine(std::string_view line, std::vector<Section>* sections) {
  if (line.find('\0') != std::string_view::npos) return false;
  const std::string text = Trimmed(line);
  if (text.empty() || text[0] == '#') return true;
  if (line[0] == '[') {
    if (text.back() != ']') return false;
    sections->push_back({text.substr(1, text.size() - 2), {}});
    return true;
  }
  const size_t equals = text.find('=');
  if (sections->empty() || equals == std::string::npos || equals == 0) return false;
  sections->back().parameters[Normal(text.substr(0, equals))] = Trimmed(text.substr(equals + 1));
  return true;
}

// The sections of the output, the global one first.  False: `why` says what is wrong with it.
bool ReadSections(const std::string& text, std::vector<Section>* sections, std::string* why) {
  std::string_view rest = text;
  int number = 0;
  for (std::string_view line; TakeLine(&rest, &line);) {
    ++number;
    if (AddLine(line, sections)) continue;
    *why = "line " + std::to_string(number) + " of its output cannot be understood";
    return false;
  }
  if (!sections->empty() && Normal(sections->front().name) == "global") return true;
  *why = "its output does not begin with [global]";
  return false;
}

// ---- The shares --------------------------------------------------------------------------------

// A share with the global parameters behind its own.
class Service {
 public:
  Service(const Section& own, const Section& global) : own_(own), global_(global) {}

  const std::string& Name() const { return own_.name; }

  std::string Value(const std::string& key) const {
    for (const Section* section : {&own_, &global_}) {
      const auto found = section->parameters.find(key);
      if (found != section->parameters.end()) return found->second;
    }
    return "";
  }

  bool Is(const std::string& key) const {
    const std::string value = Normal(Value(key));
    return value == "yes" || value == "true" || value == "1" || value == "on";
  }

  bool IsOff(const std::string& key) const {
    const std::string value = Normal(Value(key));
    return value == "no" || value == "false" || value == "0" || value == "off";
  }

  bool ShowsShadowCopies() const {
    const std::string value = Value("vfsobjects");
    std::string_view modules = value;
    for (std::string_view module; TakePart(&modules, ' ', &module);) {
      if (module == "shadow_copy2") return true;
    }
    return false;
  }

 private:
  const Section& own_;
  const Section& global_;
};

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Why the platform cannot find the snapshots of a share that shows shadow copies; "": it can.
std::string WhyNot(const Service& service) {
  const std::string path = service.Value("path");
  const std::string name = Normal(service.Name());
  if (name == "homes" || name == "printers" || name == "print$" || service.Is("printable"))
    return "it stands for many";
  if (service.IsOff("available")) return "it is not available";
  if (path.find('%') != std::string::npos ||
      service.Value("shadow:snapdir").find('%') != std::string::npos)
    return "its path depends on who asks";
  if (path[0] != '/') return "it has no absolute path";
  if (!CanBeConfigured(service.Name())) return "its name has characters that no share can have";
  if (service.Is("shadow:sscanf")) return "shadow:sscanf is not understood";
  const std::string format = service.Value("shadow:format");
  if (!format.empty() && !TellsADay(format, service.Is("shadow:localtime")))
    return "its shadow:format is none that a day can be read by";
  if (!service.Value("shadow:snapprefix").empty()) return "shadow:snapprefix is not understood";
  if (!service.Value("shadow:snapsharepath").empty())
    return "its snapshots are those of a directory above it (shadow:snapsharepath)";
  for (const char* key : {"shadow:basedir", "shadow:mountpoint"}) {
    const std::string base = service.Value(key);
    if (!base.empty() && WithoutTrailingSlashes(base) != WithoutTrailingSlashes(path))
      return std::string("its snapshots are those of another directory (") + key + ")";
  }
  return "";
}

ConfiguredShare ShareOf(const Service& service) {
  ConfiguredShare share;
  share.source = ZORV_SHARE_SOURCE_SAMBA;
  share.place = kSmbConf;
  share.name = service.Name();
  share.path = WithoutTrailingSlashes(service.Value("path"));
  share.onlyIfSubvolume = true;
  const std::string snapDir = service.Value("shadow:snapdir");
  share.snapDir = snapDir.empty() ? ".snapshots" : snapDir;
  const std::string format = service.Value("shadow:format");
  share.format = format.empty() ? kDefaultFormat : format;
  share.localTime = service.Is("shadow:localtime");
  const bool plain = share.format == kDefaultFormat || share.format == kPlainFormat;
  share.layout = plain && !share.localTime ? Layout::kNames : Layout::kFormat;
  return share;
}

void AddShares(const std::vector<Section>& sections, Configured* configured) {
  for (size_t i = 1; i < sections.size(); ++i) {
    const Service service(sections[i], sections[0]);
    if (!service.ShowsShadowCopies()) continue;
    const std::string why = WhyNot(service);
    if (why.empty()) {
      configured->shares.push_back(ShareOf(service));
    } else {
      configured->passedBy.push_back({kSmbConf, service.Name(), why});
    }
  }
}

}  // namespace

bool ParseTestparm(const std::string& text, Configured* configured, std::string* why) {
  std::vector<Section> sections;
  if (!ReadSections(text, &sections, why)) return false;
  AddShares(sections, configured);
  return true;
}

}  // namespace ZorvPlatform
