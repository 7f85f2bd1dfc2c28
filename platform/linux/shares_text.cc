#include "platform/linux/shares_text.h"

#include <ini.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <set>
#include <string_view>

#include "platform/linux/lines.h"
#include "platform/linux/name_format.h"
#include "zorvplatform/share.h"

namespace ZorvPlatform {

namespace {

// What the INI reader takes of a line and of a section's name; beyond it, it cuts in silence.
constexpr size_t kMostLine = INI_MAX_LINE - 3;
constexpr size_t kMostSection = 49;

// Reads the file once.  The INI reader calls back from C: nothing may be thrown through it, and
// what it does not tell, sections without a key and the number of the line, is seen where it gets
// its lines from.
class Reading {
 public:
  Reading(const std::string& text, Configured* configured, SourceSwitches* switches)
      : rest_(text), configured_(configured), switches_(switches) {}

  // False: Why() says why.
  bool Run() {
    const int line = ini_parse_stream(GiveLine, this, TakeValue, this);
    if (noMemory_) throw std::bad_alloc();
    // The INI reader goes on behind what it cannot read: the complaint that was first counts.
    if (line != 0 && (why_.empty() || line < whyLine_)) {
      why_.clear();
      RefuseAt(line, "is neither a [share] nor a key = value");
    }
    if (why_.empty()) EndShare();
    return why_.empty();
  }

  const std::string& Why() const { return why_; }

 private:
  static char* GiveLine(char* buffer, int size, void* self) {
    return static_cast<Reading*>(self)->Guarded([&](Reading* reading) {
      return reading->NextLine(buffer, static_cast<size_t>(size)) ? buffer : nullptr;
    });
  }

  static int TakeValue(void* self, const char* section, const char* key, const char* value) {
    const char* taken = static_cast<Reading*>(self)->Guarded([&](Reading* reading) {
      reading->Value(section, key, value);
      return reading->why_.empty() ? key : nullptr;
    });
    return taken != nullptr ? 1 : 0;
  }

  // What the body gives, or null when there is no memory for it.
  template <typename Body>
  auto Guarded(Body body) noexcept -> decltype(body(this)) {
    try {
      return body(this);
    } catch (const std::bad_alloc&) {
      noMemory_ = true;
      return nullptr;
    }
  }

  // The first complaint counts.
  void Refuse(const std::string& what) { RefuseAt(line_, what); }
  void RefuseAt(int line, const std::string& what) {
    if (!why_.empty()) return;
    whyLine_ = line;
    why_ = std::to_string(line) + ": " + what;
  }

  // Hands the next line to the INI reader.  False: there is none, or something was wrong before.
  bool NextLine(char* buffer, size_t size) {
    if (rest_.empty() || !why_.empty() || noMemory_) return false;
    ++line_;
    std::string_view line;
    (void)TakeLine(&rest_, &line);
    // The INI reader would take a line that begins with blanks for more of the value before it.
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    LookAt(line);
    if (!why_.empty() || line.size() >= size) return false;
    memcpy(buffer, line.data(), line.size());
    buffer[line.size()] = '\0';
    return true;
  }

  void LookAt(std::string_view line) {
    if (line.find('\0') != std::string_view::npos) return Refuse("has a NUL in it");
    if (line.size() > kMostLine)
      return Refuse("is longer than " + std::to_string(kMostLine) + " bytes");
    if (line.empty() || line[0] != '[') return;
    BeginShare(std::string(line.substr(1, line.find(']') - 1)));
  }

  void BeginShare(const std::string& name) {
    EndShare();
    if (!CanBeConfigured(name)) return Refuse("names what can be no share");
    if (name.size() > kMostSection)
      return Refuse("has a name of more than " + std::to_string(kMostSection) + " bytes");
    if (!names_.insert(name).second) return Refuse("begins the share " + name + " a second time");
    keys_.clear();
    share_ = ConfiguredShare();
    share_.source = ZORV_SHARE_SOURCE_FILE;
    share_.place = kSharesFile + (":" + std::to_string(line_));
    share_.name = name;
    shareLine_ = line_;
  }

  void EndShare() {
    if (!why_.empty() || share_.name.empty()) return;
    if (share_.path.empty()) return RefuseAt(shareLine_, "begins a share without a path");
    if (share_.layout == Layout::kSnapper && !share_.format.empty())
      return RefuseAt(shareLine_, "begins a share of layout snapper, which has no format");
    if (!share_.format.empty() && !TellsADay(share_.format, share_.localTime))
      return RefuseAt(formatLine_, "format " + share_.format +
                                       " is none that strptime(3) can read a day by; write it as "
                                       "photos-%Y%m%d-%H%M");
    if (share_.snapDir.empty()) share_.snapDir = ".snapshots";
    if (!share_.format.empty()) share_.layout = Layout::kFormat;
    configured_->shares.push_back(std::move(share_));
    share_ = ConfiguredShare();
  }

  void Value(const std::string& section, const std::string& key, const std::string& value) {
    if (!why_.empty()) return;
    if (!keys_.insert(key).second) return Refuse("says " + key + " a second time");
    if (section.empty()) return Switch(key, value);
    if (section != share_.name) return Refuse("is in no share");
    ShareValue(key, value);
  }

  void Switch(const std::string& key, const std::string& value) {
    bool* target = key == "volumes"   ? &switches_->volumes
                   : key == "samba"   ? &switches_->samba
                   : key == "snapper" ? &switches_->snapper
                                      : nullptr;
    if (target == nullptr) return Refuse("has the key " + key + ", which is none before a [share]");
    if (value != "on" && value != "off") return Refuse(key + " is to be on or off");
    *target = value == "on";
  }

  void ShareValue(const std::string& key, const std::string& value) {
    if (value.empty()) return Refuse(key + " is empty");
    if (key == "path") {
      if (value[0] != '/') return Refuse("path is to begin with /");
      share_.path = value;
    } else if (key == "snapshots") {
      share_.snapDir = value;
    } else if (key == "format") {
      share_.format = value;
      formatLine_ = line_;
    } else if (key == "time") {
      if (value != "local" && value != "utc") return Refuse("time is to be local or utc");
      share_.localTime = value == "local";
    } else if (key == "layout") {
      if (value != "names" && value != "snapper") return Refuse("layout is to be names or snapper");
      share_.layout = value == "snapper" ? Layout::kSnapper : Layout::kNames;
    } else {
      Refuse("has the key " + key + ", which is none of a share");
    }
  }

  std::string_view rest_;
  Configured* configured_;
  SourceSwitches* switches_;
  ConfiguredShare share_;  // the one that is being read; without a name: none
  int shareLine_ = 0;
  int formatLine_ = 0;
  std::set<std::string> names_;  // of the shares that have begun
  std::set<std::string> keys_;   // of the part that is being read
  int line_ = 0;
  std::string why_;
  int whyLine_ = 0;
  bool noMemory_ = false;
};

}  // namespace

bool ParseShares(const std::string& text, Configured* configured, SourceSwitches* switches,
                 std::string* why) {
  Reading reading(text, configured, switches);
  if (reading.Run()) return true;
  *why = reading.Why();
  return false;
}

}  // namespace ZorvPlatform
