#include "platform/linux/samba_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <deque>
#include <set>
#include <string_view>

#include "platform/linux/error.h"
#include "platform/linux/lines.h"
#include "platform/linux/read_file.h"
#include "zorvplatform/platc.h"

namespace ZorvPlatform {

namespace {

constexpr char kUnit[] = "platform/samba_files";

constexpr size_t kMostBytes = 4 << 20;
constexpr size_t kMostFiles = 64;

// Longer than the clock of any file system takes from one tick to the next.
constexpr time_t kYoungSeconds = 2;

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return text;
}

// What has been found in all files so far.
struct Search {
  std::deque<std::string> open;  // paths that are to be read
  std::set<std::string> seen;
  bool shadowCopies = false;
  bool known = true;  // all parts can be told
  std::string state;
};

// One line, whole: "key = value", a section, a comment.
void LookAt(const std::string& line, Search* search) {
  const std::string text = Trimmed(line);
  if (text.empty() || text[0] == '#' || text[0] == ';') return;
  const size_t equals = text.find('=');
  std::string key = Lower(text.substr(0, equals));
  key.erase(std::remove(key.begin(), key.end(), ' '), key.end());
  const std::string value = equals == std::string::npos ? "" : Trimmed(text.substr(equals + 1));
  // The registry is another place where shares are configured; testparm reads it, nobody else can.
  const bool registry = (key == "configbackend" || key == "include" || key == "configfile") &&
                        Lower(value) == "registry";
  if (registry || Lower(text).find("shadow_copy2") != std::string::npos)
    search->shadowCopies = true;
  if (key != "include" && key != "configfile" && !registry) return;
  if (registry || value.find('%') != std::string::npos || value[0] != '/') {
    search->known = false;
    search->shadowCopies = true;
  } else if (search->seen.insert(value).second) {
    search->open.push_back(value);
  }
}

void LookAtLines(const std::string& text, Search* search) {
  std::string_view rest = text;
  std::string whole;
  for (std::string_view line; TakeLine(&rest, &line);) {
    whole += Trimmed(line);
    if (!whole.empty() && whole.back() == '\\') {  // it goes on
      whole.pop_back();
      continue;
    }
    LookAt(whole, search);
    whole.clear();
  }
  LookAt(whole, search);
}

std::string StateOf(const struct stat& st) {
  std::string state;
  for (const auto number :
       {static_cast<int64_t>(st.st_dev), static_cast<int64_t>(st.st_ino), st.st_size,
        st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_ctim.tv_sec, st.st_ctim.tv_nsec})
    state += " " + std::to_string(number);
  return state;
}

// Reads one file; one that is included and missing is left out, as Samba does.
bool ReadPart(const std::string& path, Search* search) {
  struct stat st;
  std::string text;
  if (stat(path.c_str(), &st) != 0) {
    search->state += path + " missing\n";
    return errno == ENOENT && path != kSmbConf;
  }
  if (!ReadRegularFile(AT_FDCWD, path.c_str(), /*flags=*/0, kMostBytes, &text)) return false;
  if (st.st_ctim.tv_sec > time(nullptr) - kYoungSeconds) search->known = false;
  search->state += path + StateOf(st) + "\n";
  LookAtLines(text, search);
  return true;
}

}  // namespace

int ReadSambaFiles(SambaFiles* files) {
  struct stat st;
  if (stat(kSmbConf, &st) != 0 && (errno == ENOENT || errno == ENOTDIR)) return 0;
  Search search;
  search.open = {kSmbConf};
  search.seen = {kSmbConf};
  for (; !search.open.empty() && search.seen.size() <= kMostFiles; search.open.pop_front()) {
    if (ReadPart(search.open.front(), &search)) continue;
    return FailSaying(PLATFORM_HERE, CodeOfRefusal(errno),
                      search.open.front() + " cannot be read: " + strerror(errno));
  }
  if (!search.open.empty()) search.known = false, search.shadowCopies = true;
  files->there = true;
  files->shadowCopies = search.shadowCopies;
  files->state = search.known ? search.state : "";
  return 0;
}

}  // namespace ZorvPlatform
