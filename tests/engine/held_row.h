// A row of waiting runs as another process sees it, for tests of those that wait.
#ifndef TESTS_ENGINE_HELD_ROW_H_
#define TESTS_ENGINE_HELD_ROW_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/command.h"

namespace ZorvTest {

inline constexpr char kRows[] = "/run/zorv-btrfs-engine";

// The row of the file system that is mounted at `mountPoint`.
inline std::string RowOf(const std::string& mountPoint) {
  std::string uuid = MustRun({"findmnt", "-n", "-o", "UUID", "--mountpoint", mountPoint});
  uuid.pop_back();
  return std::string(kRows) + "/" + uuid;
}

inline struct flock OneByte(short kind, off_t byte) {
  struct flock lock = {};
  lock.l_type = kind;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return lock;
}

// A process that holds one byte of a row while the object stands, as a run does that came at that
// time: byte 1 is before everybody, byte 0 is somebody who is still coming.
class HeldRow {
 public:
  explicit HeldRow(const std::string& row, off_t byte = 1, short kind = F_WRLCK) {
    (void)mkdir(kRows, 0700);
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    const UniqueFd read(ready[0]);
    UniqueFd write(ready[1]);
    holder_ = fork();
    if (holder_ == 0) {
      (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int fd = open(row.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      struct flock lock = OneByte(kind, byte);
      if (fcntl(fd, F_SETLK, &lock) != 0) _exit(1);
      (void)!::write(write.Get(), "", 1);
      for (;;) pause();
    }
    write.Reset();
    char held = 0;
    if (::read(read.Get(), &held, 1) != 1) throw std::runtime_error("the row cannot be held");
  }
  ~HeldRow() { Release(); }
  HeldRow(const HeldRow&) = delete;
  HeldRow& operator=(const HeldRow&) = delete;

  pid_t Holder() const { return holder_; }

  // Ends the process as the machine may do it.
  void Release() {
    if (holder_ <= 0) return;
    (void)kill(holder_, SIGKILL);
    (void)WaitForExit(holder_);
    holder_ = 0;
  }

 private:
  pid_t holder_ = 0;
};

// Adds the processes that hold bytes from `begin` to before `end` of a row.
inline void AddRuns(const UniqueFd& row, off_t begin, off_t end, std::vector<pid_t>* runs) {
  if (begin >= end) return;
  struct flock lock = OneByte(F_WRLCK, begin);
  lock.l_len = end - begin;
  if (fcntl(row.Get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return;
  AddRuns(row, begin, lock.l_start, runs);
  runs->push_back(lock.l_pid);
  AddRuns(row, lock.l_start + 1, end, runs);
}

// Who has a place in a row, in the order of the places.  Not to be asked by a process that has one
// itself.
inline std::vector<pid_t> RunsInRow(const std::string& row) {
  std::vector<pid_t> runs;
  const UniqueFd fd(open(row.c_str(), O_RDWR | O_CLOEXEC));
  if (fd.Valid()) AddRuns(fd, 1, INT64_MAX, &runs);
  return runs;
}

// The first one in a row; 0: nobody.
inline pid_t SomebodyInRow(const std::string& row) {
  const std::vector<pid_t> runs = RunsInRow(row);
  return runs.empty() ? 0 : runs[0];
}

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_HELD_ROW_H_
