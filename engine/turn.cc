#include "engine/turn.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace ZorvEngine {
namespace {

constexpr char kRows[] = "/run/zorv-btrfs-engine";

// Held for reading by who has looked at the clock and not taken its place yet: it may be ahead of
// all that can be seen.
constexpr off_t kComing = 0;
constexpr off_t kFirstPlace = 1;

Status NoRow(const std::string& path, const std::string& why) {
  return Status::Failed(path + ": " + why);
}

// Whether nobody but the owner of this process can come at an open file or directory.
bool IsOurs(const UniqueFd& fd, mode_t kind) {
  struct stat status;
  return fstat(fd.Get(), &status) == 0 && (status.st_mode & S_IFMT) == kind &&
         status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// Opens the file of a row, made when it is not there.
Status OpenRow(const std::string& name, UniqueFd* row) {
  if (mkdir(kRows, S_IRWXU) != 0 && errno != EEXIST) return NoRow(kRows, strerror(errno));
  const UniqueFd directory(open(kRows, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory.Valid()) return NoRow(kRows, strerror(errno));
  if (!IsOurs(directory, S_IFDIR)) return NoRow(kRows, "is not root's alone");

  // Not blocked by a FIFO.
  UniqueFd file(openat(directory.Get(), name.c_str(),
                       O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file.Valid()) return NoRow(kRows + ("/" + name), strerror(errno));
  if (!IsOurs(file, S_IFREG)) return NoRow(kRows + ("/" + name), "is not root's alone");
  *row = std::move(file);
  return Status();
}

off_t NanosecondsNow() {
  timespec now;
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<off_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// Whether a process is stopped; not when it cannot be seen.
bool IsStopped(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return false;
  const size_t name = text.rfind(')');
  return name != std::string::npos && name + 2 < text.size() && text[name + 2] == 'T';
}

}  // namespace

Status Turn::Join(const std::string& name) {
  UniqueFd row;
  ENGINE_TRY(OpenRow(name, &row));
  row_ = std::move(row);
  bool placed = Lock(F_RDLCK, kComing);
  if (placed) {
    place_ = NanosecondsNow();
    // Two may come at the same nanosecond.
    while (!(placed = Lock(F_WRLCK, place_)) && (errno == EAGAIN || errno == EACCES)) ++place_;
  }
  const int error = errno;
  (void)Lock(F_UNLCK, kComing);
  if (!placed) {
    Leave();
    return NoRow(kRows + ("/" + name), strerror(error));
  }
  ahead_ = SIZE_MAX;
  CountAgain(Clock::now());
  return Status();
}

bool Turn::HasCome() {
  if (!row_.Valid()) return true;
  const std::optional<Other> other = OneWithin(kComing, place_);
  if (!other) return true;
  const Clock::time_point now = Clock::now();
  if (IsCountDue(now) && IsStopped(other->process)) {
    CountAgain(now);
    Count coming;
    CountWithin(kComing, kFirstPlace, &coming);
    if (counted_.waitedFor + coming.waitedFor == 0) return true;
  }
  return now - since_ > mostForOne_ * std::max<size_t>(ahead_, 1);
}

size_t Turn::Ahead() {
  if (!row_.Valid()) return 0;
  if (const Clock::time_point now = Clock::now(); IsCountDue(now)) CountAgain(now);
  return counted_.waitedFor;
}

bool Turn::IsCountDue(Clock::time_point now) const {
  if (counted_.all <= kShortRow) return true;
  return now - looked_ >= std::max<Clock::duration>(kLongRowInterval, counted_.all * kForOneMore);
}

void Turn::CountAgain(Clock::time_point now) {
  counted_ = {};
  CountWithin(kFirstPlace, place_, &counted_);
  looked_ = now;
  if (counted_.waitedFor < ahead_) since_ = now;
  ahead_ = std::min(counted_.waitedFor, ahead_);
}

bool Turn::Lock(short kind, off_t byte) const {
  struct flock lock = {};
  lock.l_type = kind;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return fcntl(row_.Get(), F_SETLK, &lock) == 0;
}

// Any of them, not always the first one.
std::optional<Turn::Other> Turn::OneWithin(off_t begin, off_t end) const {
  if (begin >= end) return std::nullopt;
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = begin;
  lock.l_len = end - begin;
  if (fcntl(row_.Get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return std::nullopt;
  return Other{lock.l_start, lock.l_len == 0 ? end : lock.l_start + lock.l_len, lock.l_pid};
}

// Adds to what was counted before.
void Turn::CountWithin(off_t begin, off_t end, Count* count) const {
  const std::optional<Other> other = OneWithin(begin, end);
  if (!other) return;
  ++count->all;
  if (!IsStopped(other->process)) ++count->waitedFor;
  CountWithin(begin, other->begin, count);
  CountWithin(other->end, end, count);
}

}  // namespace ZorvEngine
