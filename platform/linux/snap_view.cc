#include "platform/linux/snap_view.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <vector>

#include "platform/linux/directory.h"
#include "platform/linux/own_directory.h"

namespace ZorvPlatform {

namespace {

constexpr char kViews[] = "snapdirs";

// No snapshot is called so: their names begin with "GMT" or are numbers.
constexpr char kFresh[] = ".new";

// Longer than the longest listing takes; who still holds the lock then has been stopped.
constexpr int kMostWaits = 6000;
constexpr timespec kPause = {0, 10000000};

bool Lock(int fd) {
  for (int i = 0; i < kMostWaits; ++i) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    (void)nanosleep(&kPause, nullptr);
  }
  errno = EWOULDBLOCK;
  return false;
}

std::string ReadLink(int directory, const std::string& name) {
  char target[PATH_MAX];
  const ssize_t length = readlinkat(directory, name.c_str(), target, sizeof target);
  return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

}  // namespace

std::string SnapViewPath(const std::string& share) {
  return std::string(kOwnRoot) + "/" + kViews + "/" + share;
}

std::string ReadSnapViewLink(const std::string& share, const std::string& name) {
  const UniqueFd view(
      open(SnapViewPath(share).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return view.Valid() ? ReadLink(view.Get(), name) : "";
}

SnapView::~SnapView() {
  // Not left to the close: a process that was forked meanwhile has the descriptor as well.
  if (directory_.Valid()) (void)flock(directory_.Get(), LOCK_UN);
}

bool SnapView::Open(const std::string& share, std::string* why) {
  path_ = SnapViewPath(share);
  directory_ = OpenOwnDirectory({kViews, share}, why);
  if (!directory_.Valid()) return false;
  if (Lock(directory_.Get())) return true;
  *why = path_ + " cannot be locked: " + strerror(errno);
  return false;
}

bool SnapView::RemoveOthers(const std::map<std::string, std::string>& links) {
  std::vector<DirEntry> entries;
  if (!ReadDir(directory_, &entries)) return false;
  for (const DirEntry& entry : entries) {
    if (links.count(entry.name) != 0) continue;
    if (unlinkat(directory_.Get(), entry.name.c_str(), 0) != 0 && errno != ENOENT) return false;
  }
  return true;
}

bool SnapView::Link(const std::string& name, const std::string& target) {
  if (ReadLink(directory_.Get(), name) == target) return true;
  return symlinkat(target.c_str(), directory_.Get(), kFresh) == 0 &&
         renameat(directory_.Get(), kFresh, directory_.Get(), name.c_str()) == 0;
}

bool SnapView::Renew(const std::map<std::string, std::string>& links, std::string* why) {
  bool done = RemoveOthers(links);
  for (auto link = links.begin(); done && link != links.end(); ++link)
    done = Link(link->first, link->second);
  if (!done) *why = path_ + " cannot be renewed: " + strerror(errno);
  return done;
}

}  // namespace ZorvPlatform
