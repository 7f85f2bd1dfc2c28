// Two kinds of temporary files: the JSON store's, <target>.XXXXXX of mkstemp(3), whose writer holds
// the target's lock for as long as there is one; and the file copy's, .zorvcopy.<pid>.<n>, which
// name their writer.
#include "cli/leftovers.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zorvbtrfssnapusage/utils.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "cli/names.h"
#include "cli/share.h"

namespace ZorvSnapUsage {
namespace {

using namespace ZorvBtrfsUsage;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// ---- Files of a directory -----------------------------------------------------------------------

struct DirClose {
  void operator()(DIR* dir) const { (void)closedir(dir); }
};

// One directory, itself no link; one that is not there has no names.
class Directory {
 public:
  explicit Directory(const std::string& path, int parent = AT_FDCWD) {
    const int fd = openat(parent, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    stream_.reset(fdopendir(fd));
    if (!stream_) (void)close(fd);
  }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    if (!stream_) return names;
    while (const dirent* entry = readdir(stream_.get())) names.emplace_back(entry->d_name);
    return names;
  }

  int Fd() const { return dirfd(stream_.get()); }

  // Removes a regular file; anything else was not left by a writer.
  void RemoveFile(const std::string& name) const {
    struct stat file;
    if (fstatat(Fd(), name.c_str(), &file, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (S_ISREG(file.st_mode)) (void)unlinkat(Fd(), name.c_str(), 0);
  }

 private:
  std::unique_ptr<DIR, DirClose> stream_;
};

bool IsThere(const std::string& path) {
  struct stat file;
  return lstat(path.c_str(), &file) == 0;
}

// ---- Temporary files of the JSON store ----------------------------------------------------------

// A lock that is had at once or not at all.
class TriedLock {
 public:
  explicit TriedLock(const std::string& path)
      : fd_(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW)) {
    // A lock file that is not there is held by nobody, and none is made for what is gone.
    if (!fd_.Valid()) {
      free_ = errno == ENOENT;
      return;
    }
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    free_ = fcntl(fd_.Get(), F_SETLK, &whole) == 0;
  }

  bool Free() const { return free_; }

 private:
  const UniqueFd fd_;
  bool free_ = false;
};

// The target of a name with the form of a temporary file's.
std::optional<std::string> TargetOf(const std::string& name) {
  constexpr size_t kRandom = 6;  // letters and digits, after a dot
  if (name.size() < kRandom + 2) return std::nullopt;
  const size_t dot = name.size() - kRandom - 1;
  const auto isRandom = [](char c) {
    return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  };
  if (name[dot] != '.' ||
      !std::all_of(name.begin() + static_cast<long>(dot) + 1, name.end(), isRandom))
    return std::nullopt;
  return name.substr(0, dot);
}

// Gives the lock that guards the target of a temporary file; nothing for what may be something
// else.
using LockOf = std::optional<std::string> (*)(const std::string& name, const std::string& target);

std::optional<std::string> LockOfRecord(const std::string&, const std::string& target) {
  if (PathIn(kPersistentDir, target) == kShareMap) return kShareMapLock;
  if (PathIn(kPersistentDir, target) == kReminderRecord) return kReminderLock;
  return std::nullopt;
}

// No task ID is another one with an ending.
std::optional<std::string> LockOfTask(const std::string& name, const std::string& target) {
  if (!IsTaskID(target) || IsThere(TaskStatusLock(name))) return std::nullopt;
  return TaskStatusLock(target);
}

// Whether the map has the share, or cannot be read. Read without its lock, which would be waited
// for; the map is replaced whole.
bool IsRecorded(const std::string& share) {
  if (!IsThere(kShareMap)) return false;
  Json::Value map;
  if (!Utils::JsonFromFile(map, kShareMap) || !map.isObject()) return true;
  return map.isMember(share);
}

// A share may itself have such a name, and its status is then whole and its own: so the target must
// be known as a share, and the name must be known to nobody, not even as a share out of reach.
std::optional<std::string> LockOfShare(const std::string& name, const std::string& target) {
  if (IsThere(ShareStatusLock(name)) || IsRecorded(name) || ShareMayExist(name))
    return std::nullopt;
  if (!IsThere(ShareStatusPath(target)) && !IsRecorded(target) && !ShareIsThere(target))
    return std::nullopt;
  return ShareStatusLock(target);
}

// A writer holds the lock from before it makes its file until the file is gone. The names are read
// before the lock is asked for: when that is free, whoever made one of them is gone. A writer that
// goes on without a lock that it could not have, or whose lock file a cleanup has removed
// meanwhile, may lose its file; then its write fails, and the target stays as it was.
void SweepTargets(const char* path, LockOf lockOf) {
  const Directory directory(path);
  for (const std::string& name : directory.Names()) {
    const std::optional<std::string> target = TargetOf(name);
    const std::optional<std::string> lockPath = target ? lockOf(name, *target) : std::nullopt;
    if (!lockPath) continue;
    const TriedLock lock(*lockPath);
    if (lock.Free()) directory.RemoveFile(name);
  }
}

// ---- Temporary files of the file copy -----------------------------------------------------------

// The writer that a name of the form .zorvcopy.<pid>.<n> names.
std::optional<pid_t> CopierOf(const std::string& name) {
  constexpr std::string_view kPrefix = ".zorvcopy.";
  if (name.compare(0, kPrefix.size(), kPrefix) != 0) return std::nullopt;
  pid_t pid = 0;
  const char* const end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data() + kPrefix.size(), end, pid);
  if (error != std::errc() || pid <= 0 || end - rest < 2 || *rest != '.') return std::nullopt;
  return std::all_of(rest + 1, end, IsDigit) ? std::optional(pid) : std::nullopt;
}

bool IsGone(pid_t pid) { return kill(pid, 0) != 0 && errno == ESRCH; }

// Copies are made without a lock; a process that has got the number of one that is gone keeps its
// file, until the share's next result or the next run.
void SweepResults() {
  const Directory all(kShareTaskResultDir);
  for (const std::string& share : all.Names()) {
    if (share == "." || share == "..") continue;
    const Directory directory(share, all.Fd());
    for (const std::string& name : directory.Names()) {
      const std::optional<pid_t> copier = CopierOf(name);
      if (copier && IsGone(*copier)) directory.RemoveFile(name);
    }
  }
}

}  // namespace

void RemoveLeftovers() {
  SweepTargets(kPersistentDir, LockOfRecord);
  SweepTargets(kShareTaskStatusDir, LockOfShare);
  SweepTargets(kTaskStatusDir, LockOfTask);
  SweepResults();
}

}  // namespace ZorvSnapUsage
