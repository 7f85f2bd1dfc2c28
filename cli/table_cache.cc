#include "cli/table_cache.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <utility>

#include "base/unique_fd.h"
#include "cli/json_reader.h"
#include "cli/plain_files.h"
#include "cli/results.h"
#include "cli/roots.h"

namespace ZorvSnapUsage {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMostTables = 4;
constexpr off_t kMostBytes = off_t{256} << 20;

using DatedName = std::pair<Moment, std::string>;

// What lies in a share's directory.
enum class Kind { kTable, kOrigin, kUnfinished };

// A file that is being written is .<pid>.new beside the others.
constexpr char kUnfinishedMark = '.';

// Of a calculation: this, and its task ID. No table's name begins so: it is no hexadecimal digit.
constexpr std::string_view kOriginMark = "of-";

Kind KindOf(const std::string& name) {
  if (name[0] == kUnfinishedMark) return Kind::kUnfinished;
  return name.compare(0, kOriginMark.size(), kOriginMark) == 0 ? Kind::kOrigin : Kind::kTable;
}

std::string DirectoryOf(const std::string& share) { return std::string(kCacheRoot) + "/" + share; }

// Tells lists of IDs apart in names; what is in the file is what counts (FNV-1a).
unsigned long long DigestOf(const std::vector<unsigned long long>& ids) {
  unsigned long long digest = 0xcbf29ce484222325;
  for (const unsigned long long id : ids)
    for (unsigned shift = 0; shift < 64; shift += 8)
      digest = (digest ^ (id >> shift & 0xff)) * 0x100000001b3;
  return digest;
}

std::string NameOf(const std::string& fileSystemID, unsigned long long generation,
                   const std::vector<unsigned long long>& ids) {
  return fmt::format("{}-{}-{:016x}", fileSystemID, generation, DigestOf(ids));
}

void RequireSafeTables(const std::string& share) {
  RequireSafeCache();
  RequireSafeDirectory(DirectoryOf(share));
  RequirePlainFilesIn(DirectoryOf(share));
}

// The whole file; nothing when it cannot be read, or is larger than a table may be.
std::optional<std::string> WholeFile(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status;
  if (!fd.Valid() || fstat(fd.Get(), &status) != 0 || status.st_size > kMostBytes)
    return std::nullopt;
  std::string text(static_cast<size_t>(status.st_size), '\0');
  size_t at = 0;
  for (ssize_t got; at < text.size() && (got = read(fd.Get(), &text[at], text.size() - at)) > 0;)
    at += static_cast<size_t>(got);
  if (at < text.size()) return std::nullopt;
  return text;
}

// The table of a file; nothing when the file is none, or its name is that of another one.
std::optional<KeptTable> ReadTable(const std::string& share, const std::string& name) {
  const std::optional<std::string> text = WholeFile(DirectoryOf(share) + "/" + name);
  if (!text) return std::nullopt;
  try {
    KeptTable kept = ReadTableFile(*text);
    if (NameOf(kept.fileSystemID, kept.table.generation, kept.table.subvolumeIDs) != name)
      return std::nullopt;
    return kept;
  } catch (const JsonError&) {
    return std::nullopt;
  }
}

std::vector<std::string> NamesOf(Kind kind, const std::string& share) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(DirectoryOf(share), error)) {
    const std::string name = entry.path().filename();
    if (KindOf(name) == kind) names.push_back(name);
  }
  return names;
}

void Remove(const std::string& share, const std::string& name) {
  (void)unlink((DirectoryOf(share) + "/" + name).c_str());
}

// What writers that were killed have left; one that is only far away writes its table anew.
void RemoveUnfinished(const std::string& share) {
  for (const std::string& name : NamesOf(Kind::kUnfinished, share)) {
    const pid_t writer = static_cast<pid_t>(strtol(name.c_str() + 1, nullptr, 10));
    if (writer <= 0 || (kill(writer, 0) != 0 && errno == ESRCH)) Remove(share, name);
  }
}

// The share's tables but one, the newest first. Their times are read once: others may remove them
// meanwhile.
std::vector<DatedName> OthersThan(const std::string& one, const std::string& share) {
  std::vector<DatedName> others;
  for (const std::string& name : NamesOf(Kind::kTable, share)) {
    struct stat file;
    if (name != one && stat((DirectoryOf(share) + "/" + name).c_str(), &file) == 0)
      others.emplace_back(Moment(file.st_mtim), name);
  }
  std::sort(others.rbegin(), others.rend());
  return others;
}

// Removes the oldest, whatever the clock says of `newest`, but the first one that was written after
// the last result: what is shown beside that is of its state, and nobody can read it anew.
void RemoveOld(const std::string& share, const std::string& newest) {
  std::vector<DatedName> others = OthersThan(newest, share);
  if (const std::optional<Result> result = NewestResult(share)) {
    const auto later = std::find_if(others.rbegin(), others.rend(), [&](const DatedName& other) {
      return other.first >= result->stored;
    });
    if (later != others.rend()) std::rotate(others.begin(), std::prev(later.base()), later.base());
  }
  for (size_t i = kMostTables - 1; i < others.size(); ++i) Remove(share, others[i].second);
}

// Whether all of the text is in the file, which is new and root's alone.
bool Write(const std::string& path, const std::string& text) {
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.Valid()) return false;
  size_t at = 0;
  for (ssize_t put; at < text.size(); at += static_cast<size_t>(put)) {
    put = write(fd.Get(), text.data() + at, text.size() - at);
    if (put <= 0) return false;
  }
  return true;
}

bool WriteAndRename(const std::string& share, const std::string& name, const std::string& text) {
  const std::string unfinished =
      fmt::format("{}/{}{}.new", DirectoryOf(share), kUnfinishedMark, getpid());
  if (Write(unfinished, text) &&
      rename(unfinished.c_str(), (DirectoryOf(share) + "/" + name).c_str()) == 0)
    return true;
  const int error = errno;
  (void)unlink(unfinished.c_str());
  errno = error;
  return false;
}

// Whether the text is in the share's directory under this name now; the system log says why not.
bool Keep(const char* what, const std::string& share, const std::string& name,
          const std::string& text) {
  RequireSafeCache();
  bool written = MakeSafeDirectory(kCacheRoot) && MakeSafeDirectory(DirectoryOf(share));
  if (written) {
    RequirePlainFilesIn(DirectoryOf(share));
    RemoveUnfinished(share);
    written = WriteAndRename(share, name, text);
  }
  if (!written)
    syslog(LOG_NOTICE, "%s cannot be kept in %s: %s", what, kCacheRoot, strerror(errno));
  return written;
}

std::string OriginName(const std::string& taskID) { return std::string(kOriginMark) + taskID; }

// What a power cut leaves of a file is none.
bool IsFileSystemID(const std::string& text) {
  return text.size() == 36 && text.find_first_not_of("0123456789abcdef-") == std::string::npos;
}

}  // namespace

std::optional<KeptTable> FindTable(const std::string& share, const std::string& fileSystemID,
                                   unsigned long long generation,
                                   const std::vector<unsigned long long>& subvolumeIDs) {
  RequireSafeTables(share);
  std::optional<KeptTable> kept = ReadTable(share, NameOf(fileSystemID, generation, subvolumeIDs));
  if (!kept || kept->fileSystemID != fileSystemID || kept->table.generation != generation ||
      kept->table.subvolumeIDs != subvolumeIDs)
    return std::nullopt;
  return kept;
}

std::vector<KeptTable> AllTables(const std::string& share) {
  RequireSafeTables(share);
  std::vector<KeptTable> tables;
  for (const std::string& name : NamesOf(Kind::kTable, share))
    if (std::optional<KeptTable> kept = ReadTable(share, name)) tables.push_back(std::move(*kept));
  return tables;
}

void KeepTable(const std::string& share, const KeptTable& kept) {
  const std::string name =
      NameOf(kept.fileSystemID, kept.table.generation, kept.table.subvolumeIDs);
  if (Keep("a table", share, name, TableFileText(kept))) RemoveOld(share, name);
}

void KeepOrigin(const std::string& share, const std::string& taskID,
                const std::string& fileSystemID) {
  const std::optional<Result> result = NewestResult(share);
  if (!Keep("the file system of a calculation", share, OriginName(taskID), fileSystemID)) return;
  for (const std::string& name : NamesOf(Kind::kOrigin, share))
    if (name != OriginName(taskID) && (!result || name != OriginName(result->taskID)))
      Remove(share, name);
}

std::optional<std::string> OriginOf(const std::string& share, const std::string& taskID) {
  RequireSafeTables(share);
  std::optional<std::string> id = WholeFile(DirectoryOf(share) + "/" + OriginName(taskID));
  return id && IsFileSystemID(*id) ? id : std::nullopt;
}

bool RemoveTables(const std::string& share) {
  RequireSafeTables(share);
  const bool any = !NamesOf(Kind::kTable, share).empty();
  for (const Kind kind : {Kind::kTable, Kind::kOrigin, Kind::kUnfinished})
    for (const std::string& name : NamesOf(kind, share)) Remove(share, name);
  (void)rmdir(DirectoryOf(share).c_str());
  return any;
}

std::vector<std::string> SharesWithTables() {
  RequireSafeCache();
  std::vector<std::string> shares;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(kCacheRoot, error))
    shares.push_back(entry.path().filename());
  return shares;
}

}  // namespace ZorvSnapUsage
