// Many processes at once on the same files, shares and volumes: nothing is lost, torn, wrong or
// stuck.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "intl_utils/scoped_file_lock.h"
#include "tests/engine/busy_volume.h"
#include "tests/engine/held_row.h"
#include "tests/share_snap_calculator/share_fixture.h"
#include "tests/support/shared_memory.h"
#include "tests/support/torture.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;
using Vector = std::vector<unsigned long long>;

constexpr char kLogUnit[] = "tests/many_at_once";

constexpr int kWriters = 8;
constexpr int kReaders = 8;
constexpr int kWrites = 1000;  // of each writer

// The whole of a JSON file; null when it is not there. Throws when it is torn.
Json::Value Parsed(const std::string& path) {
  std::error_code gone;
  if (!std::filesystem::exists(path, gone)) return Json::Value();
  Json::Value value;
  std::istringstream text(ReadFile(path));
  text >> value;
  if (!value.isObject()) throw std::runtime_error(path + " holds no object");
  return value;
}

// Writers and readers at the same time: each writer's rounds, and the readers' until the last
// writer has ended.
class Crowd {
 public:
  using Write = std::function<bool(int writer, int round)>;  // false: what was written is not there
  using Read = std::function<bool(int reader)>;              // false: seen what must not be

  // A writer goes on for `most` rounds, or fewer when the budget ends after `least`.
  Crowd(const Write& write, const Read& read, const Budget& budget, int least = kWrites,
        int most = kWrites) {
    std::vector<pid_t> writers, readers;
    for (int writer = 0; writer < kWriters; ++writer)
      writers.push_back(Fork([&] {
        for (int round = 0; round < most && (round < least || budget.IsLeft()); ++round) {
          if (!write(writer, round)) ++seen_->lost;
          ++seen_->writes;
        }
      }));
    for (int reader = 0; reader < kReaders; ++reader)
      readers.push_back(Fork([&] {
        while (!seen_->stop) {
          if (!read(reader)) ++seen_->torn;
          ++seen_->reads;
        }
      }));
    for (const pid_t writer : writers) EXPECT_EQ(0, WaitForExit(writer));
    seen_->stop = true;
    for (const pid_t reader : readers) EXPECT_EQ(0, WaitForExit(reader));
    Figure("writes", seen_->writes);
    Figure("of writes", static_cast<unsigned>(kWriters * most));
    Figure("reads", seen_->reads);
    Figure("lost", seen_->lost);
    Figure("torn", seen_->torn);
    EXPECT_EQ(0u, seen_->lost);
    EXPECT_EQ(0u, seen_->torn);
    EXPECT_LT(0u, seen_->reads);
  }

 private:
  struct Seen {
    std::atomic<bool> stop{false};
    std::atomic<unsigned> writes{0}, reads{0}, lost{0}, torn{0};
  };

  static pid_t Fork(const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    try {
      body();
    } catch (const std::exception& error) {
      fprintf(stderr, "%s\n", error.what());
      _exit(1);
    }
    _exit(0);
  }

  SharedMemory<Seen> seen_;
};

// Seen by one reader: the values of all keys, which are numbers that only grow. An update that was
// lost, or a file of an earlier moment, shows as a smaller one.
class GrowingNumbers {
 public:
  bool Take(const Json::Value& object) {
    bool sound = true;
    for (const std::string& key : object.getMemberNames()) {
      const Json::Value& value = object[key];
      const int number = value.isString() ? atoi(value.asCString()) : -1;
      sound = sound && number >= last_[key];
      last_[key] = number;
    }
    return sound && object.size() >= last_.size();
  }

 private:
  std::map<std::string, int> last_;
};

TASKSTATUS_ATTR KeyOf(int writer) { return static_cast<TASKSTATUS_ATTR>(writer); }

// Whether a file can be read whole, and has no older value than the last time.
bool TakeFile(const std::string& path) {
  static GrowingNumbers seen;  // each reader is a process of its own
  try {
    return seen.Take(Parsed(path));
  } catch (const std::exception&) {
    return false;
  }
}

class ManyAtOnce : public ShareTest {
 protected:
  // Collecting the library's log would be most of the work.
  ManyAtOnce() { std::filesystem::rename(kLog, kAside); }
  ~ManyAtOnce() override { std::filesystem::rename(kAside, kLog); }

 private:
  static constexpr char kLog[] = "/dev/log";
  static constexpr char kAside[] = "/dev/log.aside";
};

TEST_F(ManyAtOnce, WritersOfATaskFindTheirKeys) {
  const Budget budget(0.1);
  TaskStatus made;
  ASSERT_TRUE(made.Init("crowd", true));
  ASSERT_EQ(0, made.SetStatusAttr(TASKSTATUS_ATTR_STATUS, "0"));
  Crowd(
      [](int writer, int round) {
        static TaskStatus status("crowd");
        const std::string value = std::to_string(round + 1);
        std::string back;
        return status.SetStatusAttr(KeyOf(writer), value) == 0 &&
               status.GetStatusAttr(KeyOf(writer), back) == 0 && back == value;
      },
      [](int reader) {
        if (reader % 2 == 0) return TakeFile(TaskStatusPath("crowd"));
        static TaskStatus status("crowd");
        static GrowingNumbers seen;
        Json::Value object;
        return status.GetJsonVal(object) == 0 && seen.Take(object);
      },
      budget);
  for (int writer = 0; writer < kWriters; ++writer) {
    std::string value;
    EXPECT_EQ(0, made.GetStatusAttr(KeyOf(writer), value));
    EXPECT_EQ(std::to_string(kWrites), value);
  }
}

TEST_F(ManyAtOnce, ImportsIntoAShareStatusLoseNothing) {
  const Budget budget(0.1);
  ShareTaskStatus made;
  ASSERT_TRUE(made.Init("photos", true));
  ASSERT_EQ(0, made.SetStatusAttr(TASKSTATUS_ATTR_STATUS, "0"));
  Crowd(
      // Half of them have a task of their own, with one key, which they import.
      [](int writer, int round) {
        static TaskStatus task(std::to_string(writer));
        static ShareTaskStatus share;
        const std::string value = std::to_string(round + 1);
        std::string back;
        if (!share.Valid() && !share.Init("photos", false)) return false;
        const bool written =
            writer % 2 == 0 ? share.SetStatusAttr(KeyOf(writer), value) == 0
                            : task.SetStatusAttr(KeyOf(writer), value) == 0 && share.Import(task);
        return written && share.GetStatusAttr(KeyOf(writer), back) == 0 && back == value;
      },
      [](int) { return TakeFile(ShareStatusPath("photos")); }, budget);
}

TEST_F(ManyAtOnce, TheMapOfManySharesIsWhole) {
  constexpr int kShares = 200;
  const Budget budget(0.2);
  const auto name = [](int share) { return "share" + std::to_string(share); };
  for (int share = 0; share < kShares; ++share) {
    ShareSnapUsageCal cal;
    ASSERT_EQ(0, cal.CreateTask(name(share)));
  }
  Crowd(
      [&](int writer, int round) {
        const std::string share = name(writer + kWriters * (round % (kShares / kWriters)));
        std::string before, created, after;
        bool expired = false;
        if (ShareSnapUsageCal::FindTaskID(share, before, expired) != 0) return false;
        TaskStatus::CleanFile(before);  // a share without its task's record is free
        ShareSnapUsageCal cal;
        return cal.CreateTask(share) == 0 &&
               ShareSnapUsageCal::FindTaskID(share, after, expired) == 0 && after != before &&
               TaskStatus::CheckFile(after) && !expired &&
               ShareSnapUsageCal::FindShareNameByTaskID(after, created) == 0 && created == share;
      },
      [&](int reader) {
        if (reader % 2 == 0) {
          try {
            return Parsed(kShareMap).size() == kShares;
          } catch (const std::exception&) {
            return false;
          }
        }
        // Readers do not let a waiting writer pass: without a pause among them none would write.
        usleep(5000);
        SzList list = MakeSzList();
        const bool listed = ShareSnapUsageCal::GetShareTaskList(SzListRef(list));
        return listed && list->count == kShares;
      },
      budget, /*least=*/50);
}

// Under the record's lock, as whoever else has something in it changes it: gives a writer's member
// the number of the round, and finds there that of the round before.
bool SetForeignMember(int writer, int round) {
  const ScopedFileLock lock(ZLOG_HERE, kReminderLock, ScopedFileLock::kExclusive);
  if (!lock.Held()) return false;
  Json::Value record = Parsed(kReminderRecord);
  Json::Value& member = record["writer" + std::to_string(writer)];
  const bool found = round == 0 ? member.isNull() : member == std::to_string(round);
  member = std::to_string(round + 1);
  return Utils::JsonToFile(record, kReminderRecord) && found;
}

// Half of them set the reminder, which has to leave the members of the others in the record.
TEST_F(ManyAtOnce, TheReminderIsAlwaysThere) {
  const Budget budget(0.1);
  WriteFile(kReminderRecord, R"({"foreign":"1","reminder":false})");
  Crowd(
      [](int writer, int round) {
        return writer % 2 == 0 ? Utils::ReminderStatusSet(round % 4 < 2)
                               : SetForeignMember(writer, round);
      },
      [](int reader) {
        bool on = false;
        if (reader % 2 == 0) return Utils::ReminderStatusGet(on);
        static GrowingNumbers seen;
        try {
          Json::Value record = Parsed(kReminderRecord), reminder;
          return record.removeMember("reminder", &reminder) && reminder.isBool() &&
                 seen.Take(record);
        } catch (const std::exception&) {
          return false;
        }
      },
      budget);
}

// One round after the other: all wait until the last one is there.
class Gate {
 public:
  explicit Gate(int processes) : processes_(processes) {}

  void Pass() {
    const int round = state_->round;
    if (++state_->waiting == processes_) {
      state_->waiting = 0;
      ++state_->round;
    }
    while (state_->round == round) usleep(50);
  }

 private:
  struct State {
    std::atomic<int> waiting{0}, round{0};
  };
  const int processes_;
  SharedMemory<State> state_;
};

TEST_F(ManyAtOnce, OneOfTwentyClaimsAShare) {
  constexpr int kRacers = 20;
  constexpr unsigned kLeastRounds = 30;
  struct Seen {
    std::atomic<bool> goOn{true};
    std::atomic<unsigned> winners{0}, busy{0}, others{0}, wrong{0};
    char winner[64] = {};
  };
  const Budget budget(0.2);
  const SharedMemory<Seen> seen;
  Gate begin(kRacers + 1), end(kRacers + 1);
  std::vector<pid_t> racers;
  for (int racer = 0; racer < kRacers; ++racer) {
    racers.push_back(fork());
    if (racers.back() != 0) continue;
    for (begin.Pass(); seen->goOn; begin.Pass()) {
      ShareSnapUsageCal cal;
      const int code = cal.CreateTask("photos");
      ++(code == 0 ? seen->winners : code == 4 ? seen->busy : seen->others);
      std::string id;
      bool expired = false;
      // Whoever comes back from the race finds one task, the same for everybody.
      if (ShareSnapUsageCal::CheckAvail("photos", id) || id.empty()) ++seen->wrong;
      if (code == 0 &&
          (ShareSnapUsageCal::FindTaskID("photos", id, expired) != 0 || !TaskStatus::CheckFile(id)))
        ++seen->wrong;
      if (code == 0) id.copy(seen->winner, sizeof seen->winner - 1);
      end.Pass();
    }
    _exit(0);
  }
  unsigned rounds = 0;
  for (; rounds < kLeastRounds || budget.IsLeft(); ++rounds) {
    begin.Pass();
    end.Pass();
    EXPECT_EQ(rounds + 1, seen->winners) << "round " << rounds;
    EXPECT_EQ((rounds + 1) * (kRacers - 1), seen->busy) << "round " << rounds;
    std::string id;
    bool expired = false;
    EXPECT_EQ(0, ShareSnapUsageCal::FindTaskID("photos", id, expired));
    EXPECT_EQ(seen->winner, id);
    const std::filesystem::directory_iterator files("/run/zorvbtrfssnapusage/task_status");
    EXPECT_EQ(1, std::distance(std::filesystem::begin(files), std::filesystem::end(files)))
        << "tasks that nobody has";
    if (HasFailure()) break;
    TaskStatus::CleanFile(id);
  }
  seen->goOn = false;
  begin.Pass();
  for (const pid_t racer : racers) EXPECT_EQ(0, WaitForExit(racer));
  EXPECT_EQ(0u, seen->others);
  EXPECT_EQ(0u, seen->wrong);
  Figure("races", rounds);
  Figure("won by one", seen->winners);
  Figure("busy for the others", seen->busy);
}

// ---- Fifty shares -------------------------------------------------------------------------------

constexpr int kShares = 50;
constexpr int kSnapshots = 3;

// Whether an engine with a place in the row lets its worker read: it has closed the pipe by which
// the worker is kept waiting, its only one to write to beside what its caller gave it.
bool LetsItsWorkerRead(pid_t engine) {
  const std::string process = "/proc/" + std::to_string(engine);
  std::error_code gone;
  unsigned seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator(process + "/fd", gone)) {
    ++seen;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
    if (target.rfind("pipe:", 0) != 0) continue;
    std::istringstream info(ReadFile(process + "/fdinfo/" + entry.path().filename().string()));
    std::string word;
    unsigned flags = 0;
    while (info >> word && word != "flags:") continue;
    info >> std::oct >> flags;
    if ((flags & O_CLOEXEC) != 0 && (flags & O_ACCMODE) == O_WRONLY) return false;
  }
  return seen > 0;
}

// How many engines of a row certainly read at one moment: those seen to do so twice did so in
// between.
unsigned ReadingAtOnce(const std::string& row) {
  const auto reading = [&row] {
    std::vector<pid_t> engines = RunsInRow(row);
    std::erase_if(engines, [](pid_t engine) { return !LetsItsWorkerRead(engine); });
    return std::set<pid_t>(engines.begin(), engines.end());
  };
  const std::set<pid_t> before = reading(), after = reading();
  return static_cast<unsigned>(std::count_if(
      before.begin(), before.end(), [&after](pid_t engine) { return after.count(engine) > 0; }));
}

class FiftyShares : public ManyAtOnce {
 protected:
  FiftyShares() {
    std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs",
                               std::filesystem::copy_options::overwrite_existing);
    for (int share = 0; share < kShares; ++share) FillShare(share);
    volume_.Subvolume("busy");
    for (int n = 0; n < 50; ++n) WriteRandom(BusyFile(n), 9000, n);
  }

  static std::string NameOf(int share) { return "share" + std::to_string(share); }
  std::string BusyFile(unsigned n) const {
    return volume_.Path("busy/file" + std::to_string(n % 50));
  }
  std::string SnapshotOf(int share, int n) const {
    return volume_.Path(NameOf(share) + "/.snapshots/GMT-2024.0" + std::to_string(n + 1) +
                        ".01-00.00.00");
  }

  // Every snapshot has something of its own and something shared; some shares have trees of several
  // levels.
  void FillShare(int share) {
    CreateSubvolume(volume_.Path(NameOf(share)));
    const std::string dir = NameOf(share) + "/";
    std::filesystem::create_directory(volume_.Path(dir + ".snapshots"));
    const int small = share % 5 == 0 ? 200 : 2;
    for (int n = 0; n < small; ++n)
      WriteFile(volume_.Path(dir + "small" + std::to_string(n)), std::string(500, 'a'));
    for (int n = 0; n < kSnapshots; ++n) {
      const unsigned seed = static_cast<unsigned>(100 * share + n);
      WriteRandom(volume_.Path(dir + "rewritten"), 16384u * (share % 7 + 1) + 4096u * n, seed);
      WriteRandom(volume_.Path(dir + "kept" + std::to_string(n)), 8192, seed + 50);
      if (n == 2) std::filesystem::remove(volume_.Path(dir + "kept0"));
      CreateSnapshot(volume_.Path(NameOf(share)), SnapshotOf(share, n), /*readOnly=*/true);
    }
    WriteRandom(volume_.Path(dir + "new"), 12288, 0);
    // From here on no tree block of the share's own is a snapshot's too, so that nothing that is
    // written to the share changes what its snapshots hold.
    for (int n = 0; n < small; ++n)
      WriteFile(volume_.Path(dir + "small" + std::to_string(n)), std::string(500, 'b'));
    for (const char* name : {"rewritten", "kept1", "kept2"})
      std::filesystem::permissions(volume_.Path(dir + name), std::filesystem::perms::all);
  }

  // One calculation of a share's snapshots; the code that its caller would be told, 0 when its
  // numbers are those of `right`.
  enum Outcome { kRight = 0, kNotClaimed = 101, kNotLaunched, kStuck, kNotDone, kNoResult, kWrong };
  Outcome Calculate(int share, const std::map<unsigned long long, unsigned long long>& right) {
    ShareSnapUsageCal cal;
    std::string id;
    bool expired = false;
    if (cal.CreateTask(NameOf(share)) != 0) return kNotClaimed;
    std::vector<std::string> paths;
    for (int n = 0; n < kSnapshots; ++n) paths.push_back(SnapshotOf(share, n));
    SzList list = ListOf(paths);
    if (cal.Launch(SzListRef(list)) != 0) return kNotLaunched;
    if (ShareSnapUsageCal::FindTaskID(NameOf(share), id, expired) != 0) return kNotLaunched;
    // The task's own file goes last, when the results have been copied; that of a failed one stays.
    const auto ended = [&] {
      if (!TaskStatus::CheckFile(id)) return true;
      const std::string state = ShareStatus(NameOf(share), "status");
      return state == "fail" || state == "stop";
    };
    if (!WaitUntil(ended, 120)) return kStuck;
    if (ShareStatus(NameOf(share), "status") != "done") return kNotDone;
    Vector ids, usage;
    if (ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, NameOf(share), ids) != 0 ||
        ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, NameOf(share), usage) != 0 ||
        ids.size() != kSnapshots || usage.size() != kSnapshots)
      return kNoResult;
    // Of its own snapshots: those of another share may be right as well.
    std::map<unsigned long long, unsigned long long> asked, given;
    for (int n = 0; n < kSnapshots; ++n) {
      const unsigned long long subvolume = RootId(paths[n]);
      asked[subvolume] = right.at(subvolume);
      given[ids[n]] = usage[n];
    }
    return given == asked ? kRight : kWrong;
  }

  // What the kernel says of the snapshots that are asked about.
  std::map<unsigned long long, unsigned long long> KernelsNumbers() {
    std::map<unsigned long long, unsigned long long> all = volume_.KernelExclusive(), asked;
    for (int share = 0; share < kShares; ++share)
      for (int n = 0; n < kSnapshots; ++n) {
        const unsigned long long id = RootId(SnapshotOf(share, n));
        asked[id] = all.at(id);
      }
    return asked;
  }

  BtrfsVolume volume_{"/volume1", {.sizeMiB = 512, .mkfs = {}, .mount = ""}};
};

TEST_F(FiftyShares, AreCalculatedRightWhileTheVolumeChanges) {
  const auto right = KernelsNumbers();
  const Budget budget(0.3);
  struct Seen {
    std::atomic<unsigned> outcomes[8] = {};
    std::atomic<unsigned> right{0};
    std::atomic<unsigned> looks{0}, together{0};  // engines seen to read: by one, and at most
  };
  const SharedMemory<Seen> seen;
  unsigned written = 0, snapshots = 0, commits = 0;
  const std::string errors = "/tmp/errors";
  WriteFile(errors, "");
  {
    const Activity writes([this](unsigned round) {
      for (unsigned n = 0; n < 10; ++n) Overwrite(BusyFile(round * 13 + n), 9000, round);
      // In the shares too, but not what their snapshots have.
      WriteRandom(volume_.Path(NameOf(static_cast<int>(round) % kShares) + "/new"), 12288, round);
    });
    const Activity passing(
        [this](unsigned round) {
          const auto path = [&](unsigned n) {
            return volume_.Path(NameOf(static_cast<int>(n) % kShares) + "/.snapshots/passing" +
                                std::to_string(n));
          };
          CreateSnapshot(volume_.Path(NameOf(static_cast<int>(round) % kShares)), path(round),
                         true);
          if (round >= 5) DestroySubvolume(path(round - 5));
        },
        0.02);
    const Activity looking(
        [&seen, row = RowOf(volume_.MountPoint())](unsigned) {
          const unsigned together = ReadingAtOnce(row);
          if (together > 0) ++seen->looks;
          if (together > seen->together) seen->together = together;
        },
        0.001);
    const Activity committing([this](unsigned) { Commit(volume_.MountPoint()); }, 0.3);
    // On a busy machine looks are few, and all of the first engines may have read in between.
    const double lastBegin = Seconds() + 60;
    const auto isUnseen = [&] { return seen->looks == 0 && Seconds() < lastBegin; };
    std::vector<pid_t> callers;
    for (int share = 0; share < kShares; ++share) {
      callers.push_back(fork());
      if (callers.back() != 0) continue;
      const int fd = open(errors.c_str(), O_WRONLY | O_APPEND);
      (void)dup2(fd, STDERR_FILENO);
      for (int round = 0; round < 1 || budget.IsLeft() || isUnseen(); ++round) {
        const Outcome outcome = Calculate(share, right);
        ++(outcome == kRight ? seen->right : seen->outcomes[outcome - kNotClaimed]);
        if (outcome != kRight) dprintf(fd, "outcome %d of %s\n", outcome, NameOf(share).c_str());
      }
      _exit(0);
    }
    for (const pid_t caller : callers) EXPECT_EQ(0, WaitForExit(caller));
    written = writes.Done(), snapshots = passing.Done(), commits = committing.Done();
  }
  const std::string said = ReadFile(errors);
  unsigned waited = 0;
  for (size_t at = 0; (at = said.find("NOTE: waiting for other runs", at)) != said.npos; ++at)
    ++waited;
  Figure("calculations with the right numbers", seen->right);
  Figure("wrong", seen->outcomes[kWrong - kNotClaimed]);
  Figure("stuck", seen->outcomes[kStuck - kNotClaimed]);
  Figure("engines that said they wait", waited);
  Figure("looks that saw an engine read", seen->looks);
  Figure("engines that read at once", seen->together);
  Figure("snapshots made meanwhile", snapshots);
  Figure("commits meanwhile", commits);
  for (int outcome = kNotClaimed; outcome <= kWrong; ++outcome)
    EXPECT_EQ(0u, seen->outcomes[outcome - kNotClaimed]) << "outcome " << outcome << "\n" << said;
  EXPECT_LE(static_cast<unsigned>(kShares), seen->right);
  EXPECT_LT(0u, waited);
  EXPECT_EQ(1u, seen->together);
  EXPECT_LT(0u, written);
  EXPECT_LT(0u, snapshots);
  // Nothing that was done meanwhile changed what is asked about.
  EXPECT_EQ(right, KernelsNumbers());
}

}  // namespace
}  // namespace ZorvTest
