// turn.h: the row in which runs on one file system wait for their turns.
#ifndef ENGINE_TURN_H_
#define ENGINE_TURN_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// A place in the row of one file system.  Whoever came first is first; a place is given back by
// Leave and, whatever becomes of the process, by the kernel at its end.  Nobody stands in the way
// for ever: who is ahead and stopped (SIGSTOP) does not count, and who waits goes on without its
// turn at last.
//
// The row is an empty file of root's that nobody else can open; each place is a record lock of one
// byte, whose offset is the time of coming.  Record locks belong to the process: one place for each
// process, which opens the file nowhere else.
class Turn {
 public:
  // How long a place may stay as it is, for each one ahead of it.
  static constexpr std::chrono::milliseconds kMostForOne{10 * 60 * 1000};

  explicit Turn(std::chrono::milliseconds mostForOne = kMostForOne) : mostForOne_(mostForOne) {}

  // Takes the last place in the row `name`, a file name.  Fails, saying why, when no row can be
  // kept here: its directory cannot be made or written, or is not root's alone.  Never waits.
  Status Join(const std::string& name);

  // What is looked at again at each call, and how often all of a longer row is: looking at
  // everybody ahead costs the more the longer the row is, and everybody in it does so.
  static constexpr size_t kShortRow = 4;
  static constexpr std::chrono::seconds kLongRowInterval{1};
  static constexpr std::chrono::milliseconds kForOneMore{40};  // the least for each one in the row

  // Whether to begin now: nobody is ahead, or it was waited long enough, or there is no place.
  // Quick enough to be asked many times a second; that all in a long row are stopped is noticed
  // within kLongRowInterval, of a very long one within kForOneMore for each.
  bool HasCome();

  // How long to sleep until HasCome is worth asking again. Far behind: ten times as long, for all
  // in the row ask, and hardly ever is one of them next; who was far behind when it last counted,
  // and is first by now, begins that much later.
  std::chrono::milliseconds Nap() const { return counted_.all <= kShortRow ? kNap : 10 * kNap; }
  static constexpr std::chrono::milliseconds kNap{20};

  // Counts who is ahead, of a long row no more often than that.  To be asked from time to
  // time while waiting: it is how a place that stays as it is gets noticed.
  size_t Ahead();

  // Gives the place back; nothing without one.
  void Leave() { row_.Reset(); }

 private:
  using Clock = std::chrono::steady_clock;

  // A lock of another process on the bytes from `begin` to before `end`.
  struct Other {
    off_t begin;
    off_t end;
    pid_t process;
  };

  // How many others are in a part of the row.
  struct Count {
    size_t all = 0;
    size_t waitedFor = 0;  // without those that are stopped
  };

  bool Lock(short kind, off_t byte) const;
  std::optional<Other> OneWithin(off_t begin, off_t end) const;
  void CountWithin(off_t begin, off_t end, Count* count) const;
  void CountAgain(Clock::time_point now);
  bool IsCountDue(Clock::time_point now) const;

  const std::chrono::milliseconds mostForOne_;
  UniqueFd row_;
  off_t place_ = 0;
  Count counted_;             // ahead, when last looked at,
  Clock::time_point looked_;  // and when that was
  size_t ahead_ = 0;          // the fewest that were ever waited for,
  Clock::time_point since_;   // and since when it is not less
};

// A run that reads nothing for that long gives its place back: its disk hangs, or somebody has
// stopped it.
constexpr std::chrono::seconds kMostStandStill{60};

// Notices that a number does not change.
class StandStill {
 public:
  using Clock = std::chrono::steady_clock;

  explicit StandStill(Clock::time_point now) : since_(now) {}

  // Takes the number as it is at `now`; for how long it has been the same.
  Clock::duration Take(uint64_t number, Clock::time_point now) {
    if (number != number_) since_ = now;
    number_ = number;
    return now - since_;
  }

 private:
  uint64_t number_ = 0;
  Clock::time_point since_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_TURN_H_
