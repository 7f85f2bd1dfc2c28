// The engine on real file systems that change all the time beside it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>

#include "tests/engine/busy_volume.h"

using namespace ZorvTest;

namespace {

// A file system whose extent tree is large beside its image, and whose extents of two subvolumes
// alternate: what changes in one changes leaves of the extent tree that speak of the other.
class AlternatingVolume {
 public:
  AlternatingVolume() {
    volume_.Subvolume("kept");
    volume_.Subvolume("busy");
    const UniqueFd kept = Open(volume_.Path("kept/file"), O_RDWR | O_CREAT);
    const UniqueFd busy = Open(volume_.Path("busy/file"), O_RDWR | O_CREAT);
    for (unsigned n = 0; n < kExtents; ++n) {
      EXPECT_EQ(0, fallocate(kept.Get(), 0, n * kExtent, kExtent));
      EXPECT_EQ(0, fallocate(busy.Get(), 0, n * kExtent, kExtent));
      if (n % (kExtents / 3) == 0) {
        const std::string name = "snap" + std::to_string(asked_.size());
        asked_.push_back(volume_.Snapshot("kept", name));
        EXPECT_EQ(0, fallocate(kept.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                               n / 2 * kExtent, kExtent * 500));
      }
    }
    asked_.push_back(volume_.Path("kept"));
    // Free space in one piece would take long to be used a second time.
    for (unsigned round = 0; round < 100; ++round) Change(round, 40);
  }

  const std::vector<std::string>& Asked() const { return asked_; }
  std::string Device() const { return volume_.Device(); }

  // Runs the engine while the busy subvolume changes, is kept in snapshots, and all is committed.
  EngineRun WhileCommitsGoOn(const std::function<EngineRun()>& engine) {
    const Activity churn([&](unsigned round) { Change(round, 2); }, 0.12);
    const Activity snapshots(
        [&](unsigned round) {
          CreateSnapshot(volume_.Path("busy"), Passing(round), /*readOnly=*/true);
          if (round >= 2) DestroySubvolume(Passing(round - 2));
        },
        0.3);
    return engine();
  }

 private:
  static constexpr unsigned kExtents = 14000;
  static constexpr off_t kExtent = 4096;

  std::string Passing(unsigned n) const { return volume_.Path("passing" + std::to_string(n)); }

  // Changes `extents` of the busy file, all over it, and commits.
  void Change(unsigned round, unsigned extents) const {
    const UniqueFd busy = Open(volume_.Path("busy/file"), O_RDWR);
    for (unsigned n = 0; n < extents; ++n) {
      const off_t at = (round * extents + n) * 7919ull % kExtents * kExtent;
      (void)fallocate(busy.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, kExtent);
      (void)fallocate(busy.Get(), 0, at, kExtent);
    }
    (void)syncfs(busy.Get());
  }

  BtrfsVolume volume_{kMount, Options(320, {"-n", "4096", "-m", "single"})};
  std::vector<std::string> asked_;
};

// What people and programs do to a file system, each in processes of its own, until it goes.
class Load {
 public:
  enum Kind { kBalance, kResize, kScrub, kDefragment, kDedupe, kDevices };

  // Files of the subvolume "busy" are written to, with commits; snapshots of it, "passing<n>", come
  // and go.
  explicit Load(BtrfsVolume& volume, bool snapshots = true) : volume_(volume) {
    Start([this](unsigned round) {
      for (unsigned n = 0; n < 20; ++n) Overwrite(File(round * 13 + n), 9000, round);
    });
    Start([this](unsigned) { Commit(volume_.MountPoint()); }, 0.3);
    if (!snapshots) return;
    Start(
        [this](unsigned round) {
          CreateSnapshot(volume_.Path("busy"), Passing(round), /*readOnly=*/true);
          if (round >= 2) DestroySubvolume(Passing(round - 2));
        },
        0.3);
  }

  // Adds something, or several things that are done in turn, each once a round; returns the number
  // of it, for Done. Balance, resize and changes of devices exclude each other: whoever only asks
  // again and again may never be let in.
  size_t Add(const std::vector<Kind>& kinds) {
    std::vector<Activity::Round> rounds;
    for (const Kind kind : kinds) rounds.push_back(RoundOf(kind));
    return Start([rounds](unsigned round) {
      for (const Activity::Round& each : rounds) each(round);
    });
  }

  unsigned Done(size_t number) const { return activities_[number]->Done(); }

  static constexpr unsigned kFiles = 400;  // busy/0 and on

 private:
  Activity::Round RoundOf(Kind kind) {
    switch (kind) {
      case kBalance:
        return [](unsigned) { Stock({"balance", "start", "--full-balance", kMount}); };
      case kResize:
        return [](unsigned round) {
          Stock({"filesystem", "resize", round % 2 == 0 ? "1:-100M" : "1:+100M", kMount});
        };
      case kScrub:
        return [](unsigned) { Stock({"scrub", "start", "-B", kMount}); };
      case kDefragment:
        return [this](unsigned round) { Defragment(File(round), round % 2 == 0); };
      case kDedupe:
        return [this](unsigned round) {
          for (const char* name : {"busy/one", "busy/two"})
            WriteRandom(volume_.Path(name), 1 << 17, round);
          (void)DedupeRange({volume_.Path("busy/one"), 0, 1 << 17}, volume_.Path("busy/two"), 0);
        };
      case kDevices:
        break;
    }
    return [device = volume_.AddDevice(300)](unsigned) {
      // It may be there still: to remove it was forbidden.
      (void)ZorvTest::Run({kStockBtrfs, "device", "add", "-f", device, kMount});
      Stock({"device", "remove", device, kMount});
    };
  }

  size_t Start(const Activity::Round& round, double pause = 0) {
    activities_.push_back(std::make_unique<Activity>(round, pause));
    return activities_.size() - 1;
  }
  static void Stock(std::vector<std::string> argv) {
    argv.insert(argv.begin(), kStockBtrfs);
    MustRun(argv);
  }
  std::string Passing(unsigned n) const { return volume_.Path("passing" + std::to_string(n)); }
  std::string File(unsigned n) const { return volume_.Path("busy/" + std::to_string(n % kFiles)); }

  BtrfsVolume& volume_;
  std::vector<std::unique_ptr<Activity>> activities_;
};

struct Scenario {
  const char* name;
  std::vector<std::vector<Load::Kind>> kinds;
};

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

class BusyFilesystem : public testing::Test {
 protected:
  void SetUp() override {
    MakeHistory(volume_, 300, 6);
    volume_.Subvolume("busy");
    WriteFiles("busy", 0, Load::kFiles, 7);
    MustRun({"sync", "-f", kMount});
    kernel_ = volume_.KernelExclusive();
    for (const char* name : {"snap1", "snap2", "snap4", "snap5", "snap6", "live", "written"})
      still_.push_back(SubvolumeID(volume_.Path(name)));
  }

  // The arguments for everything that stays, and for what changes.
  std::vector<std::string> Arguments(const std::string& option) const {
    std::vector<std::string> args = {
        "-vm", option, "-r", kMount, "5", std::to_string(SubvolumeID(volume_.Path("busy")))};
    for (const unsigned long long id : still_) args.push_back(std::to_string(id));
    return args;
  }

  // Of subvolumes that nobody changes.
  void ExpectNumbersOfBefore(const EngineRun& run) const {
    for (const unsigned long long id : still_)
      EXPECT_EQ(kernel_.at(id), run.sizes.at(id)) << "subvolume " << id;
  }

  // What the engine said, and an image of that moment.
  struct Moment {
    std::string image;
    Sizes sizes;
  };

  void KeepMoment(const EngineRun& run) {
    moments_.push_back({"/tmp/moment" + std::to_string(moments_.size()), run.sizes});
    MustRun({"cp", "--reflink=always", volume_.Image(), moments_.back().image});
  }

  static unsigned long long GenerationOfImage(const std::string& image) {
    uint64_t generation = 0;
    EXPECT_EQ(8, pread(Open(image, O_RDONLY).Get(), &generation, 8, 65536 + 72));
    return le64toh(generation);
  }

  void ExpectKernelNumbersAtMoments() {
    volume_.Unmount();
    for (const Moment& moment : moments_) {
      const std::unique_ptr<BtrfsVolume> copy = volume_.Copy();
      MustRun({"cp", "--reflink=always", moment.image, copy->Image()});
      copy->SetMountOptions("skip_balance");
      copy->Mount();
      const Sizes kernel = copy->KernelExclusive();
      copy->Unmount();
      for (const auto& [id, bytes] : moment.sizes) EXPECT_EQ(kernel.at(id), bytes) << id;
    }
    volume_.Mount();
  }

  static BtrfsOptions OnOneDevice() {
    BtrfsOptions options = Options(0, {"-n", "4096", "-m", "single"});
    options.devicesMiB = {1200};
    return options;
  }

  // Images lie on this one, where copies are made in no time.
  BtrfsVolume below_{"/tmp", {4096, {}, ""}};
  BtrfsVolume volume_{kMount, OnOneDevice()};
  Sizes kernel_;
  std::vector<Moment> moments_;
  std::vector<unsigned long long> still_;
};

class BusyWhile : public BusyFilesystem, public testing::WithParamInterface<Scenario> {};

const Scenario kScenarios[] = {
    {"Writing", {}},
    {"Balance", {{Load::kBalance}}},
    {"Resize", {{Load::kResize}}},
    {"Scrub", {{Load::kScrub}}},
    {"DefragmentAndDedupe", {{Load::kDefragment}, {Load::kDedupe}}},
    {"DevicesAddedAndRemoved", {{Load::kDevices}}},
    {"Everything",
     {{Load::kBalance, Load::kResize, Load::kDevices},
      {Load::kScrub},
      {Load::kDefragment},
      {Load::kDedupe}}},
};

}  // namespace

TEST_P(BusyWhile, BothWaysOfCountingAgree) {
  constexpr double kTime = 6;
  constexpr double kMostTime = 120;
  constexpr int kFewestRuns = 12;
  Load load(volume_);
  std::vector<size_t> numbers;
  for (const auto& kinds : GetParam().kinds) numbers.push_back(load.Add(kinds));
  const KernelView kernel;
  const unsigned long long first = kernel.Generation();
  int exact = 0;
  int refusals = 0;
  std::map<std::string, int> refused;
  const auto isEachDone = [&] {
    return std::ranges::all_of(numbers, [&](size_t number) { return load.Done(number) > 0; });
  };
  const auto rounds = [&] {
    std::string text;
    for (const size_t number : numbers) text += std::to_string(load.Done(number)) + " ";
    return text;
  };
  const double begin = Seconds();
  const auto isEnough = [&] {
    return exact >= kFewestRuns && exact >= 3 * refusals && Seconds() >= begin + kTime &&
           isEachDone();
  };
  while (!isEnough()) {
    ASSERT_LT(Seconds(), begin + kMostTime)
        << exact << " exact, " << refusals << " refused; rounds of each load: " << rounds();
    const EngineRun run = RunEngine(Arguments("--verify"));
    if (run.status == 0) {
      ++exact;
      ExpectNumbersOfBefore(run);
    } else {
      EXPECT_TRUE(IsClearRefusal(run.err)) << run.err;
      ++refusals;
      ++refused[run.err];
    }
  }
  for (const auto& [text, times] : refused) printf("%d x %s", times, text.c_str());
  printf("%d exact, %d refused, %llu commits\n", exact, refusals, kernel.Generation() - first);
}

INSTANTIATE_TEST_SUITE_P(Load, BusyWhile, testing::ValuesIn(kScenarios),
                         [](const auto& test) { return std::string(test.param.name); });

// Whether commits overtook a run in what it read, and it ended soon all the same. Its numbers are
// right in any case.
bool IsOvertakenAndEndsSoon() {
  AlternatingVolume volume;
  const KernelView kernel;
  const SlowDisk slow = SlowDisk::Reading(volume.Device(), 512 << 10);
  std::vector<std::string> args = {"-vm", "--method", "scan", "--stats"};
  args.insert(args.end(), volume.Asked().begin(), volume.Asked().end());
  const auto run = [&] { return ParseRun(ZorvTest::Run(slow.Command(EngineCommand(args)))); };
  const EngineRun quiet = run();
  EXPECT_EQ(0, quiet.status) << quiet.err;
  EXPECT_EQ(1u, NumberOf(quiet, "passes"));
  const unsigned long long before = kernel.Generation();
  const EngineRun busy = volume.WhileCommitsGoOn(run);
  const unsigned long long overtaken = kernel.Generation() - before;
  EXPECT_EQ(0, busy.status) << busy.err;
  EXPECT_EQ(quiet.sizes, busy.sizes);
  const unsigned long long passes = NumberOf(busy, "passes");
  // What a run reads is its time on this disk.
  const double longer = 1.0 * NumberOf(busy, "bytes") / NumberOf(quiet, "bytes");
  printf("%.1f times the reads of a quiet run, %llu commits, %llu passes, %llu repairs\n", longer,
         overtaken, passes, NumberOf(busy, "repairs"));
  return overtaken >= 50 && passes > 1 && longer < 3;
}

// Every commit moves leaves of the extent tree and reuses what earlier ones have freed; a run that
// began anew each time would not end. Nearly every one is overtaken and ends soon; by chance, or
// beside other work, one is not, or meets more commits. Each has a volume of its own: where there
// was one already, less of what is read changes.
TEST(BusySlowRun, EndsExactlyAndSoonWhileManyCommitsOvertakeIt) {
  constexpr int kMostRuns = 8;
  bool met = false;
  for (int runs = 0; runs < kMostRuns && !met && !testing::Test::HasFailure(); ++runs)
    met = IsOvertakenAndEndsSoon();
  EXPECT_TRUE(met) << "no run was overtaken by 50 commits and ended within three times what a "
                      "quiet one reads";
}

// A frozen file system has nothing to commit; on a copy of it the kernel counts.
TEST_F(BusyFilesystem, EqualsTheKernelWhereverItIsFrozen) {
  {
    Load load(volume_, /*snapshots=*/false);
    load.Add({Load::kDefragment});
    for (useconds_t pause = 100'000; pause <= 300'000; pause += 100'000) {
      usleep(pause);
      const Freeze frozen(kMount);
      const EngineRun run = RunEngine(Arguments("--method=scan"));
      ASSERT_EQ(0, run.status) << run.err;
      EXPECT_EQ("", run.err) << "there is nothing to commit";
      KeepMoment(run);
    }
  }
  ExpectKernelNumbersAtMoments();
}

// A balance cannot be frozen, but an image can be copied in no time: it is of the moment of the run
// when it has the commit that the numbers are for.
TEST_F(BusyFilesystem, EqualsTheKernelWhileABalanceRuns) {
  const KernelView view;
  {
    Load load(volume_, /*snapshots=*/false);
    load.Add({Load::kBalance});
    const double begin = Seconds();
    while (moments_.size() < 4) {
      ASSERT_LT(Seconds(), begin + 240) << "no moment was met";
      const EngineRun run = RunEngine(Arguments("--method=scan"));
      EXPECT_TRUE(run.status == 0 || IsClearRefusal(run.err)) << run.err;
      if (run.status != 0 || !view.IsBalancing()) continue;
      KeepMoment(run);
      if (GenerationOfImage(moments_.back().image) == GenerationOf(run)) {
        usleep(200'000);
        continue;
      }
      std::filesystem::remove(moments_.back().image);
      moments_.pop_back();
    }
  }
  ExpectKernelNumbersAtMoments();
}

// Whoever touches a file while its data is moved may be given the new place of the data at once,
// and snapshots keep the old one for a while: it looks as if each had a copy.
TEST(BusyBalance, DoesNotMakeSharedDataLookLikeCopies) {
  constexpr unsigned kFiles = 8000;
  BtrfsVolume volume(kMount, Options(1200, {}));
  volume.Subvolume("touched");
  WriteFiles("touched", 0, kFiles, 7);
  volume.Snapshot("touched", "kept");
  MustRun({"sync", "-f", kMount});
  const std::vector<std::string> args = {"-v", "--method=scan", volume.Path("touched"),
                                         volume.Path("kept")};
  const Sizes quiet = RunEngine(args).sizes;
  ASSERT_EQ(2u, quiet.size());

  const Activity touching([&](unsigned round) {
    std::mt19937 random(round);
    for (int n = 0; n < 200; ++n)
      (void)utimensat(AT_FDCWD, volume.Path("touched/" + std::to_string(random() % kFiles)).c_str(),
                      nullptr, 0);
    Commit(kMount);
  });
  const Activity moving([](unsigned) { MustRun({kStockBtrfs, "balance", "start", "-d", kMount}); });
  const KernelView kernel;
  const double begin = Seconds();
  bool foreseen = false;
  for (int whileMoving = 0; whileMoving < 30 || moving.Done() < 2 || !foreseen;) {
    ASSERT_LT(Seconds(), begin + 240) << whileMoving << " runs, " << moving.Done() << " balances";
    const EngineRun run = RunEngine(args);
    if (run.status == 0)
      EXPECT_EQ(quiet, run.sizes);
    else
      EXPECT_TRUE(IsClearRefusal(run.err)) << run.err;
    if (run.status == 0 && kernel.IsBalancing()) ++whileMoving;
    const EngineRun check = RunEngine({"--check", "-r", kMount});
    EXPECT_EQ(0, check.status);
    foreseen = foreseen || std::ranges::any_of(check.lines, [](const std::string& line) {
                 return line.find("is moving data: a run scans, and waits") != std::string::npos;
               });
  }
}

// The worker is held until its subvolume is gone and its blocks have been used for others.
TEST_F(BusyFilesystem, NamesASubvolumeThatIsDeletedWhileItCounts) {
  const Load load(volume_);
  for (const bool byPath : {true, false}) {
    bool named = false;
    RandomMoment moment;
    for (int round = 0; !named; ++round) {
      ASSERT_LT(round, 500) << "no run began anew";
      const std::string path = volume_.Snapshot("live", "leaving");
      const std::string id = std::to_string(SubvolumeID(path));
      MustRun({"sync", "-f", kMount});
      EngineProcess engine(byPath ? std::vector<std::string>{"-vm", "--method=scan", path}
                                  : std::vector<std::string>{"-vm", "--method=scan", "-r", kMount,
                                                             id, std::to_string(still_[0])});
      const bool held = engine.StopWorker(moment.Next());
      moment.WasMet(held);
      DestroySubvolume(path);
      Commit(kMount);
      if (held) {
        for (unsigned n = 0; n < 40; ++n) {
          Overwrite(volume_.Path("busy/" + std::to_string(n)), 9000, n);
          Commit(kMount);
        }
        engine.ContinueWorker();
      }
      const EngineRun run = engine.Finish();
      if (run.status == 0) continue;
      if (run.err.find("meanwhile") == std::string::npos) {  // it was held before it had looked
        EXPECT_TRUE(run.err.rfind("ERROR: there is no subvolume " + id, 0) == 0 ||
                    run.err.rfind("ERROR: cannot open " + path, 0) == 0)
            << run.err;
        continue;
      }
      EXPECT_EQ("ERROR: subvolume " + id + " (" + (byPath ? path : "leaving") +
                    ") was deleted meanwhile; ask again without it",
                run.err.substr(0, run.err.find(" (", run.err.find("again"))))
          << run.err;
      EXPECT_TRUE(run.sizes.empty());
      named = true;
    }
  }
}

TEST_F(BusyFilesystem, LeavesNothingBehindWhenItIsKilled) {
  const Load load(volume_);
  RandomMoment moment;
  int killed = 0;
  for (int round = 0; killed < 40; ++round) {
    ASSERT_LT(round, 1000);
    std::vector<std::string> args = Arguments(round % 3 == 0 ? "--verify" : "--method=scan");
    args.push_back("--memory");
    args.push_back("1");
    EngineProcess engine(args);
    const bool front = round % 2 == 0;
    const bool stopped = engine.StopWorker(moment.Next());
    moment.WasMet(stopped);
    if (!stopped) continue;
    ++killed;
    ASSERT_EQ(0, kill(front ? engine.Front() : engine.Worker(), SIGKILL));
    engine.ContinueWorker();
    const EngineRun run = engine.Finish();
    EXPECT_EQ(front ? 128 + SIGKILL : 1, run.status);
    EXPECT_TRUE(run.sizes.empty());
    if (!front) {
      EXPECT_EQ(0u, run.lines.back().rfind("exclusive sizes unavailable: ", 0));
    }
    EXPECT_TRUE(WaitUntil([&] { return engine.WorkerEnded(); })) << "round " << round;
  }
  EXPECT_TRUE(std::filesystem::is_empty("/var/tmp"));
}

// Where no room is left even a commit can fail; the last one is there all the same.
TEST_F(BusyFilesystem, CountsOnAFullFilesystem) {
  EXPECT_NE(0,
            ZorvTest::Run({"dd", "if=/dev/zero", "of=/volume1/busy/all", "bs=1M", "oflag=direct"})
                .status);
  EXPECT_NE(0,
            ZorvTest::Run({"bash", "-c",
                           "for n in $(seq 20000); do seq 400 > /volume1/busy/s$n || exit 1; done"})
                .status);
  const EngineRun run = RunEngine(Arguments("--verify"));
  ASSERT_EQ(0, run.status) << run.err;
  ExpectNumbersOfBefore(run);
}

namespace {

// A file system whose image is made by the test, with a commit only when somebody asks for one.
class QuietImage {
 public:
  explicit QuietImage(const std::string& image) {
    MustRun({"truncate", "-s", "256M", image});
    MustRun({"mkfs.btrfs", "-q", "-m", "single", image});
    std::filesystem::create_directories(kMount);
    device = Attach(image);
    MustRun({"mount", "-o", "commit=300", device, kMount});
    MustRun({kStockBtrfs, "subvolume", "create", std::string(kMount) + "/live"});
    WriteFiles("live", 1, 40, 1);
    MustRun({"sync", "-f", kMount});
    arguments = {"-vm", "-r", kMount, std::to_string(SubvolumeID(std::string(kMount) + "/live"))};
    before = RunEngine(arguments).sizes;
    EXPECT_EQ(1u, before.size());
  }
  ~QuietImage() {
    (void)umount2(kMount, MNT_DETACH);
    (void)ZorvTest::Run({"losetup", "--detach", device});
  }
  QuietImage(const QuietImage&) = delete;
  QuietImage& operator=(const QuietImage&) = delete;

  // Expects a run to say `note` and give the numbers of before.
  void ExpectLastCommit(const std::string& note) const {
    const EngineRun run = RunEngine(arguments);
    EXPECT_EQ("NOTE: " + note + "; the numbers are for its last commit\n", run.err);
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(before, run.sizes);
  }

  std::string device;
  std::vector<std::string> arguments;
  Sizes before;

 private:
  // Far from those that others get: a limit on writing is for everybody who uses a device, and
  // outlives a test that is killed.
  static std::string Attach(const std::string& image) {
    for (int number = 200; number < 300; ++number) {
      const std::string loop = "/dev/loop" + std::to_string(number);
      if (ZorvTest::Run({"losetup", loop, image}).status == 0) return loop;
    }
    throw std::runtime_error("no loop device");
  }
};

}  // namespace

// Somebody else's commit goes on and on; the engine's is to come after it.
TEST(BusyCommit, IsNotWaitedForLongWhenTheDiskIsSlow) {
  const QuietImage image("/tmp/image");
  Shell("for n in $(seq 1500); do echo $n{1..99} > live/small$n; done");  // inline: tree blocks
  std::unique_ptr<SlowDisk> slow(new SlowDisk(SlowDisk::Writing(image.device, 50 << 10)));
  const Activity commit([&](unsigned) { MustRun({"sync", "-f", kMount}); }, 60);
  usleep(1'000'000);
  const double begin = Seconds();
  image.ExpectLastCommit("the file system does not commit in time");
  EXPECT_LT(Seconds() - begin, 30);
  EXPECT_EQ(0u, commit.Done());
  slow.reset();
}

// The disk below is full: a commit fails, and the kernel allows no more of them.
TEST(BusyCommit, IsRefusedAfterAnErrorAndTheLastOneIsCounted) {
  std::filesystem::create_directories("/small");
  MustRun({"mount", "-t", "tmpfs", "-o", "size=40m", "small", "/small"});
  {
    const QuietImage image("/small/image");
    Write("live/more", 60 << 20, 5);
    (void)ZorvTest::Run({"sync", "-f", kMount});
    image.ExpectLastCommit("the file system refuses to commit (Read-only file system)");
  }
  (void)umount2("/small", MNT_DETACH);
}
