// Limits of a process, stepped from nothing to enough: descriptors, the size of files, memory, and
// processes of an ordinary user.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <numeric>
#include <sstream>

#include "base/paths.h"
#include "tests/support/command.h"
#include "tests/support/sanitizer.h"
#include "tests/support/syscall_stepper.h"
#include "tests/support/torture.h"
#include "tests/torture/scarcity_world.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;

namespace {

void Limit(__rlimit_resource resource, rlim_t most) {
  const rlimit limit = {most, most};
  if (setrlimit(resource, &limit) != 0) _exit(99);
}

void LimitMemory(size_t mebibytes) { Limit(RLIMIT_AS, static_cast<rlim_t>(mebibytes) << 20); }

// Bytes of addresses that this process has.
rlim_t AddressBytes() {
  std::ifstream in("/proc/self/statm");
  rlim_t pages = 0;
  in >> pages;
  return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// ---- The library --------------------------------------------------------------------------------

class ScarceLimits : public testing::Test {
 protected:
  // Runs a calculation with a limit, judges it, and says whether it was enough.
  bool Try(const std::string& what, const std::function<void()>& limit,
           const Tolerated& tolerated = {}, bool mayBeKilled = false) {
    SCOPED_TRACE(what);
    world_.log.Clear();
    Ends ends;
    try {
      ends = world_.RunPrepared(limit);
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
      world_.Restore();
      return false;
    }
    Aftermath aftermath;
    killed_ += !ends.crashed.empty();
    if (!mayBeKilled || ends.crashed.empty()) world_.JudgeEnds(ends, &aftermath);
    const std::string log = world_.log.Dump();
    const Aftermath judged = world_.Judge(ends.caller, tolerated);
    aftermath.wrong.insert(aftermath.wrong.end(), judged.wrong.begin(), judged.wrong.end());
    for (const std::string& wrong : aftermath.wrong) ADD_FAILURE() << wrong << "\n" << log;
    const bool enough =
        ends.caller == 0 && judged.state == "done" && !judged.noResult && !judged.shortResult;
    ++tried_;
    failed_ += !enough;
    cleaned_ += judged.cleaned;
    lostMembers_ += judged.lostMembers;
    short_ += judged.shortResult || judged.noResult;
    lost_ += !aftermath.wrong.empty();
    return enough;
  }

  void LeaveFigures() const {
    Figure("limits", tried_);
    Figure("failed as documented", failed_);
    Figure("ended by the signal", killed_);
    Figure("states cleaned as documented", cleaned_);
    Figure("unreadable files that lost other members", lostMembers_);
    Figure("results without some numbers", short_);
    Figure("lost", lost_);
  }

  // What may come of any call that has to have something new.
  static Tolerated OfEverything() {
    Tolerated tolerated;
    tolerated.unreadable = {kShareMap, ShareStatusPath(ScarcityWorld::kShare)};
    tolerated.unfinished = tolerated.unlisted = tolerated.shortOutput = true;
    return tolerated;
  }

  // Not enough, then enough for ever: how many of it a calculation takes.
  size_t StepsUntilEnough(size_t from, size_t most, const std::function<bool(size_t)>& tries) {
    size_t step = from;
    while (step < most && !tries(step)) ++step;
    EXPECT_GT(step, from) << "it was enough at once";
    EXPECT_LT(step, most) << "it was never enough";
    return step;
  }

  ScarcityWorld world_;

 private:
  unsigned long long tried_ = 0, failed_ = 0, killed_ = 0, cleaned_ = 0, lostMembers_ = 0;
  unsigned long long short_ = 0, lost_ = 0;
};

TEST_F(ScarceLimits, Descriptors) {
  const size_t enough = StepsUntilEnough(3, 64, [this](size_t descriptors) {
    return Try(
        std::to_string(descriptors) + " descriptors",
        [=] {
          closelog();
          close_range(3, ~0U, 0);
          Limit(RLIMIT_NOFILE, descriptors);
        },
        OfEverything());
  });
  Figure("descriptors that are enough", enough);
  LeaveFigures();
}

// Ignored, the signal is a failure of the write.
TEST_F(ScarceLimits, SizeOfFilesWithTheSignalIgnored) {
  const Budget budget(0.3);
  Tolerated tolerated;
  tolerated.unfinished = true;
  constexpr size_t kMost = 800;  // bytes; the map is the longest file
  size_t tried = 0;
  for (const size_t bytes : SpreadOrder(kMost)) {
    if (tried++ >= 20 && !budget.IsLeft()) break;
    (void)Try(
        std::to_string(bytes) + " bytes",
        [=] {
          signal(SIGXFSZ, SIG_IGN);
          Limit(RLIMIT_FSIZE, bytes);
        },
        tolerated);
  }
  LeaveFigures();
}

// Not ignored, it ends the process that writes, wherever that is: the library does not see it.
TEST_F(ScarceLimits, SizeOfFilesWithTheSignal) {
  const Budget budget(0.2);
  Tolerated tolerated = OfEverything();
  tolerated.unreadable.clear();
  tolerated.temporaryFiles = true;
  size_t tried = 0;
  for (const size_t bytes : SpreadOrder(800)) {
    if (tried++ >= 20 && !budget.IsLeft()) break;
    (void)Try(
        std::to_string(bytes) + " bytes", [=] { Limit(RLIMIT_FSIZE, bytes); }, tolerated,
        /*mayBeKilled=*/true);
  }
  LeaveFigures();
}

// Where the compiler sees that what was taken is used.
void* volatile lastTaken = nullptr;

// Takes all memory that this process can still have, but for so many pieces of a KiB.
void LeaveMemory(size_t pieces) {
  constexpr size_t kPiece = 1024;
  std::vector<void*> spare(pieces);
  for (void*& piece : spare) piece = malloc(kPiece);
  Limit(RLIMIT_AS, AddressBytes());
  for (size_t size = 1 << 20; size >= 16; size /= 2)
    while (void* const taken = malloc(size)) lastTaken = taken;
  for (void* piece : spare) free(piece);
}

TEST_F(ScarceLimits, Memory) {
  NEEDS_MEMORY_LIMITS();
  const Budget budget(0.2);
  constexpr size_t kMost = 256;
  size_t tried = 0, enough = 0;
  for (const size_t pieces : SpreadOrder(kMost)) {
    if (tried++ >= 20 && !budget.IsLeft()) break;
    enough += Try(
        std::to_string(pieces) + " KiB", [=] { LeaveMemory(pieces); }, OfEverything());
  }
  EXPECT_GT(enough, 0u) << "it was never enough";
  LeaveFigures();
}

// Root has no such limit.
TEST_F(ScarceLimits, ProcessesOfAnOrdinaryUser) {
  constexpr uid_t kUser = 64321;  // nobody else's
  const size_t enough = StepsUntilEnough(0, 16, [this](size_t processes) {
    return Try(
        std::to_string(processes) + " processes",
        [=] {
          for (const char* root : {kRunDir, kLockDir, kPersistentDir}) {
            (void)!chown(root, kUser, kUser);
            for (const auto& entry : fs::recursive_directory_iterator(root))
              (void)!chown(entry.path().c_str(), kUser, kUser);
          }
          Limit(RLIMIT_NPROC, processes);
          if (setresgid(kUser, kUser, kUser) != 0 || setresuid(kUser, kUser, kUser) != 0) _exit(98);
        },
        OfEverything());
  });
  Figure("processes that are enough", enough);
  LeaveFigures();
}

// ---- The engine ---------------------------------------------------------------------------------

class ScarceLimitsOfTheEngine : public testing::Test {
 protected:
  ScarceLimitsOfTheEngine() { world_.UseRealEngine(); }

  // The exit status; with 0 all numbers have been given, and whatever was given is right.
  int Try(const std::function<void()>& limit) {
    ++tried_;
    std::vector<std::string> argv = {ZORV_ENGINE_PATH, "subvolume", "size",
                                     "-vpm",           "-r",        "/volume1"};
    for (const std::string& id : world_.IDs()) argv.push_back(id);
    const int status = InChild([&] {
      const int out = open(kOut, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      const int err = open(kErr, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      dup2(out, STDOUT_FILENO);
      dup2(err, STDERR_FILENO);
      limit();
      return Program(argv)();
    });
    const std::string out = ReadFile(kOut), err = ReadFile(kErr);
    SubvolumeSizes sizes;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      unsigned long long id = 0, bytes = 0;
      if (sscanf(line.c_str(), "subvol(%llu) %llu bytes", &id, &bytes) == 2) sizes[id] = bytes;
    }
    for (const auto& [id, bytes] : sizes) {
      const auto known = world_.Expected().find(id);
      EXPECT_TRUE(known != world_.Expected().end() && known->second == bytes) << out;
    }
    if (status == 0) {
      EXPECT_EQ(world_.Expected(), sizes) << out << err;
    } else {
      ++refused_;
    }
    return status;
  }

  void LeaveFigures() const {
    Figure("limits", tried_);
    Figure("refused", refused_);
  }

  // Its loader could not begin it: a status of its own, and no line.
  static bool IsOfTheLoader(int status) {
    return status == 127 && Has(ReadFile(kErr), "error while loading shared libraries");
  }

  // An engine that has begun fails with the reason on both ways, and with no number beside it.
  static void ExpectReason(int status) {
    const std::string out = ReadFile(kOut), err = ReadFile(kErr);
    EXPECT_EQ(1, status) << out << err;
    EXPECT_TRUE(Has(err, "ERROR: ")) << err;
    EXPECT_TRUE(Has(out, "exclusive sizes unavailable: ")) << out;
    EXPECT_FALSE(Has(out, "subvol(")) << out;
  }

  static constexpr char kOut[] = "/tmp/limits.out";
  static constexpr char kErr[] = "/tmp/limits.err";

  ScarcityWorld world_{2000};

 private:
  unsigned long long tried_ = 0, refused_ = 0;
};

TEST_F(ScarceLimitsOfTheEngine, Descriptors) {
  bool enough = false;
  for (rlim_t descriptors = 3; !enough && descriptors < 64; ++descriptors) {
    SCOPED_TRACE(std::to_string(descriptors) + " descriptors");
    const int status = Try([=] {
      close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
      Limit(RLIMIT_NOFILE, descriptors);
    });
    enough = status == 0;
    if (!enough && !IsOfTheLoader(status)) ExpectReason(status);
  }
  EXPECT_TRUE(enough);
  LeaveFigures();
}

// With so much memory the program comes to its first line. What the loader cannot map with less
// ends it before, with or without words, or by a signal.
size_t LeastMiBToBegin() {
  for (size_t mebibytes = 1;; ++mebibytes) {
    const int status = InChild([=] {
      const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
      dup2(null, STDOUT_FILENO);
      dup2(null, STDERR_FILENO);
      LimitMemory(mebibytes);
      return Program({ZORV_ENGINE_PATH, "subvolume", "size", "--version"})();
    });
    if (status == 0 || mebibytes == 1024) return mebibytes;
  }
}

TEST_F(ScarceLimitsOfTheEngine, Memory) {
  NEEDS_MEMORY_LIMITS();
  const Budget budget(0.1);
  constexpr size_t kSteps = 256, kEach = 16;
  const size_t least = LeastMiBToBegin();
  std::vector<size_t> all(kEach);  // the first of them are where most goes wrong
  std::iota(all.begin(), all.end(), least);
  for (const size_t step : SpreadOrder(kSteps)) all.push_back(step + 1);
  size_t tried = 0, enough = 0, said = 0;
  for (const size_t mebibytes : all) {
    if (tried++ >= kEach + 20 && !budget.IsLeft()) break;
    SCOPED_TRACE(std::to_string(mebibytes) + " MiB");
    const int status = Try([=] { LimitMemory(mebibytes); });
    enough += status == 0;
    if (status == 0 || mebibytes < least) continue;
    ExpectReason(status);
    ++said;
  }
  EXPECT_GT(enough, 0u);
  EXPECT_GT(said, 0u);
  Figure("MiB with which it begins", least);
  Figure("failures with a reason", said);
  LeaveFigures();
}

// Its output is cut nowhere: a line is there, or it is not.
TEST_F(ScarceLimitsOfTheEngine, SizeOfItsOutput) {
  const Budget budget(0.2);
  ASSERT_EQ(0, Try([] {}));
  const size_t whole = ReadFile(kOut).size();
  size_t tried = 0;
  for (const size_t bytes : SpreadOrder(whole)) {
    if (tried++ >= 20 && !budget.IsLeft()) break;
    SCOPED_TRACE(std::to_string(bytes) + " bytes");
    const int status = Try([=] {
      signal(SIGXFSZ, SIG_IGN);
      Limit(RLIMIT_FSIZE, bytes);
    });
    EXPECT_EQ(1, status);
    const std::string out = ReadFile(kOut);
    EXPECT_TRUE(out.empty() || out.back() == '\n') << out;
  }
  LeaveFigures();
}

}  // namespace
