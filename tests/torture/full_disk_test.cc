// Disks fill up under a calculation: each root on a tmpfs of its own, full of content or of files
// from each step of the road on, or for that step alone; also what the engine writes to.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "tests/support/command.h"
#include "tests/support/syscall_stepper.h"
#include "tests/support/torture.h"
#include "tests/torture/scarcity_world.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;

namespace {

enum class Room { kContent, kFiles };  // what there is no room for

// A small tmpfs in place of a directory.
class SmallDisk {
 public:
  explicit SmallDisk(std::string path, const std::string& size = "512k") : path_(std::move(path)) {
    fs::create_directories(path_);
    const std::string options = "size=" + size + ",nr_inodes=64,mode=755";
    if (mount("tmpfs", path_.c_str(), "tmpfs", 0, options.c_str()) != 0)
      throw std::runtime_error("no tmpfs at " + path_ + ": " + strerror(errno));
  }
  ~SmallDisk() { (void)umount2(path_.c_str(), MNT_DETACH); }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  const std::string& Path() const { return path_; }

  // Leaves room for so many pages of content, or files.
  void Fill(Room what, size_t left = 0) const {
    struct statvfs room;
    if (statvfs(path_.c_str(), &room) != 0) throw std::runtime_error("no room to be seen");
    if (what == Room::kContent) {
      const size_t pages = room.f_bfree > left ? room.f_bfree - left : 0;
      const UniqueFd fd(open(Filler(0).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
      if (posix_fallocate(fd.Get(), 0, static_cast<off_t>(pages * room.f_bsize)) != 0)
        throw std::runtime_error("cannot be filled: " + path_);
    } else {
      for (size_t files = room.f_ffree; files > left; --files)
        UniqueFd(open(Filler(files).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
  }

  void Empty() const {
    for (const auto& entry : fs::directory_iterator(path_))
      if (Has(entry.path(), "/.filler")) fs::remove(entry.path());
  }

 private:
  std::string Filler(size_t number) const { return path_ + "/.filler" + std::to_string(number); }

  const std::string path_;
};

class FullDisk : public testing::Test {
 protected:
  FullDisk() {
    for (const char* root : {kRunDir, kLockDir, kPersistentDir})
      disks_.push_back(std::make_unique<SmallDisk>(root));
    world_.Restore();
  }
  ~FullDisk() override { disks_.clear(); }

  // Judges a calculation during which something was full; by now there is room again.
  void Judge(const Ends& ends, const std::string& what) {
    SCOPED_TRACE(what);
    Aftermath aftermath;
    world_.JudgeEnds(ends, &aftermath);
    const std::string log = world_.log.Dump();
    Tolerated tolerated;
    tolerated.unfinished = true;
    const Aftermath judged = world_.Judge(ends.caller, tolerated);
    aftermath.wrong.insert(aftermath.wrong.end(), judged.wrong.begin(), judged.wrong.end());
    const bool failed = ends.caller != 0 || judged.state != "done";
    if (failed && !SaysWhy(log)) aftermath.wrong.push_back("the log does not say why");
    ++calculations_;
    failed_ += failed;
    cleaned_ += judged.cleaned;
    lost_ += !aftermath.wrong.empty();
    for (const std::string& wrong : aftermath.wrong) ADD_FAILURE() << wrong << "\n" << log;
  }

  void LeaveFigures() const {
    Figure("calculations on full disks", calculations_);
    Figure("failed as documented", failed_);
    Figure("states cleaned as documented", cleaned_);
    Figure("lost", lost_);
  }

  ScarcityWorld world_;
  std::vector<std::unique_ptr<SmallDisk>> disks_;

 private:
  static bool SaysWhy(const std::string& log) {
    for (const char* text : {"Faild to mkdir ", "Failed to open file [",
                             "Failed to write Json data to file, path: ", " cannot be created.",
                             "Some errors occur on output stream, file: ", "Failed to copy from ("})
      if (Has(log, text)) return true;
    return false;
  }

  unsigned long long calculations_ = 0, failed_ = 0, cleaned_ = 0, lost_ = 0;
};

// ---- At each step of the road -------------------------------------------------------------------

class FullDiskAtEachStep : public FullDisk {
 protected:
  struct Moment {
    const SmallDisk* disk;
    Room what;
    bool lasting;
    Step step;
  };

  // Each step that writes below a root, with all ways in which that can be full.
  std::vector<Moment> Moments() {
    std::vector<Step> steps;
    SyscallStepper().Run([this] { return world_.Calculate(); },
                         [&](const Step& step) {
                           if (IsOurs(step)) steps.push_back(step);
                           return Action::GoOn();
                         });
    world_.Restore();
    std::vector<Moment> moments;
    for (const Step& step : steps)
      for (const auto& disk : disks_)
        if (Has(step.text, disk->Path()))
          for (const bool lasting : {true, false})
            for (const Room what : {Room::kContent, Room::kFiles})
              moments.push_back({disk.get(), what, lasting, step});
    return moments;
  }

  void Try(const Moment& moment) {
    world_.log.Clear();
    Ends ends;
    SyscallStepper stepper;
    stepper.OnEnd([&](pid_t, Role role, int status) {
      if (role == Role::kCalculator) ends.calculators.push_back(status);
      // The front kills a worker that it needs no more.
      const bool wasKilled = role == Role::kWorker && WIFSIGNALED(status);
      if (WIFSIGNALED(status) && !(wasKilled && WTERMSIG(status) == SIGKILL))
        ends.crashed += std::string(NameOf(role)) + "; ";
    });
    bool full = false;
    ends.caller = stepper.Run([this] { return world_.Calculate(); },
                              [&](const Step& step) {
                                if (step.role != moment.step.role) return Action::GoOn();
                                if (full && !moment.lasting) moment.disk->Empty();
                                if (step.number == moment.step.number) {
                                  moment.disk->Fill(moment.what);
                                  full = true;
                                }
                                return Action::GoOn();
                              });
    moment.disk->Empty();
    Judge(ends, std::string(NameOf(moment.step.role)) + " step " +
                    std::to_string(moment.step.number) + " (" + moment.step.text +
                    "): no room for " + (moment.what == Room::kContent ? "content" : "files") +
                    (moment.lasting ? " from then on" : ""));
  }

 private:
  static bool IsOurs(const Step& step) {
    return step.role == Role::kCaller || step.role == Role::kCalculator;
  }
};

TEST_F(FullDiskAtEachStep, QuickEngine) {
  const Budget budget(0.6);
  const std::vector<Moment> moments = Moments();
  const std::vector<size_t> order = SpreadOrder(moments.size());
  size_t tried = 0;
  while (tried < order.size() && (tried < 20 || budget.IsLeft())) Try(moments[order[tried++]]);
  Figure("moments", tried);
  Figure("of moments", moments.size());
  LeaveFigures();
}

TEST_F(FullDiskAtEachStep, RealEngine) {
  const Budget budget(0.15);
  world_.UseRealEngine();
  const std::vector<Moment> moments = Moments();
  const std::vector<size_t> order = SpreadOrder(moments.size());
  size_t tried = 0;
  while (tried < order.size() && (tried < 5 || budget.IsLeft())) Try(moments[order[tried++]]);
  Figure("moments", tried);
  Figure("of moments", moments.size());
  LeaveFigures();
}

// ---- With little room from the beginning --------------------------------------------------------

TEST_F(FullDisk, LittleRoomFromTheBeginning) {
  const Budget budget(0.15);
  constexpr size_t kMostRoom = 12;  // more than a calculation takes on any of the disks
  std::vector<std::vector<const SmallDisk*>> choices(1);
  for (const auto& disk : disks_) {
    choices[0].push_back(disk.get());
    choices.push_back({disk.get()});
  }
  for (size_t left = 0; left <= kMostRoom && (left < 3 || budget.IsLeft()); ++left) {
    for (const auto& choice : choices) {
      for (const Room what : {Room::kContent, Room::kFiles}) {
        world_.log.Clear();
        for (const SmallDisk* disk : choice) disk->Fill(what, left);
        const Ends ends = world_.RunPrepared([] {});
        for (const SmallDisk* disk : choice) disk->Empty();
        Judge(ends, std::to_string(choice.size()) + " disks, room for " + std::to_string(left) +
                        (what == Room::kContent ? " pages" : " files"));
      }
    }
  }
  LeaveFigures();
}

// ---- What the engine writes to ------------------------------------------------------------------

class FullDiskOfTheEngine : public testing::Test {
 protected:
  FullDiskOfTheEngine() { world_.UseRealEngine(); }

  CommandResult Engine(const std::string& options, const std::string& redirection) const {
    std::string command =
        std::string(ZORV_ENGINE_PATH) + " subvolume size -vpm " + options + " -r /volume1";
    for (const std::string& id : world_.IDs()) command += " " + id;
    return ZorvTest::Run({"bash", "-c", command + redirection});
  }

  SubvolumeSizes SizesIn(const std::string& out) const {
    SubvolumeSizes sizes;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      unsigned long long id = 0, bytes = 0;
      if (sscanf(line.c_str(), "subvol(%llu) %llu bytes", &id, &bytes) == 2) sizes[id] = bytes;
    }
    return sizes;
  }

  ScarcityWorld world_{400};
};

// A snapshot of so many extents that what is kept of them does not fit into the least memory.
std::string ManyExtents() {
  constexpr off_t kExtents = 24000, kExtent = 4096;
  const std::string file = "/volume1/docs/extents";
  {
    const UniqueFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    for (off_t i = 0; i < kExtents; ++i)
      if (fallocate(fd.Get(), 0, 2 * i * kExtent, kExtent) != 0)
        throw std::runtime_error("no room for extents");
  }
  MustRun({kStockBtrfs, "subvolume", "snapshot", "-r", "/volume1/docs", "/volume1/extents"});
  fs::remove(file);
  MustRun({"sync", "-f", "/volume1"});
  return std::to_string(SubvolumeID("/volume1/extents"));
}

TEST_F(FullDiskOfTheEngine, ItsTemporaryFiles) {
  const std::string command = std::string(ZORV_ENGINE_PATH) +
                              " subvolume size --method scan -r /volume1 -vm " + ManyExtents() +
                              " ";
  const auto run = [&](const std::string& options) {
    return ZorvTest::Run({"bash", "-c", command + options});
  };
  const SubvolumeSizes expected = SizesIn(run("").out);
  ASSERT_EQ(1u, expected.size());
  unsigned long long runs = 0, refused = 0;
  bool enough = false;
  for (size_t left = 0; !enough && left < 4096; left = left < 2 ? left + 1 : left * 2) {
    SCOPED_TRACE(std::to_string(left) + " pages");
    const SmallDisk disk("/var/tmp", "16m");
    disk.Fill(Room::kContent, left);
    const CommandResult little = run("--memory 1");
    ++runs;
    enough = little.status == 0;
    if (enough) {
      EXPECT_EQ(expected, SizesIn(little.out));
      continue;
    }
    ++refused;
    EXPECT_EQ(1, little.status);
    EXPECT_EQ(SubvolumeSizes(), SizesIn(little.out));
    EXPECT_TRUE(Has(little.err, "ERROR: there is no room for ")) << little.err;
    EXPECT_TRUE(Has(little.out, "exclusive sizes unavailable: there is no room for "))
        << little.out;
  }
  EXPECT_TRUE(enough);
  EXPECT_GT(refused, 0u);
  Figure("runs", runs);
  Figure("refused", refused);
}

TEST_F(FullDiskOfTheEngine, ItsOutput) {
  const CommandResult full = Engine("", " > /dev/full");
  EXPECT_EQ(1, full.status);
  EXPECT_TRUE(Has(full.err, "cannot write: No space left on device")) << full.err;
  const SmallDisk disk("/var/tmp");
  disk.Fill(Room::kContent);
  EXPECT_EQ(1, Engine("", " > /var/tmp/out").status);
  EXPECT_EQ("", ReadFile("/var/tmp/out"));
  disk.Empty();
  EXPECT_EQ(0, Engine("", " > /var/tmp/out").status);
  EXPECT_EQ(world_.Expected(), SizesIn(ReadFile("/var/tmp/out")));
  Figure("full outputs", 2);
}

// A reader that takes its time, and one that has made the pipe such that it does not wait.
TEST_F(FullDiskOfTheEngine, ItsPipe) {
  for (const int flags : {0, O_NONBLOCK}) {
    SCOPED_TRACE(flags);
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
    ASSERT_EQ(4096, fcntl(writeEnd.Get(), F_SETPIPE_SZ, 4096));
    ASSERT_EQ(4096, write(writeEnd.Get(), std::string(4096, '\n').data(), 4096));
    const int were = fcntl(writeEnd.Get(), F_GETFL);
    ASSERT_EQ(0, fcntl(writeEnd.Get(), F_SETFL, were | flags));
    const pid_t engine = fork();
    if (engine == 0) {
      dup2(writeEnd.Get(), STDOUT_FILENO);
      std::vector<std::string> argv = {ZORV_ENGINE_PATH, "subvolume", "size",
                                       "-vpm",           "-r",        "/volume1"};
      for (const std::string& id : world_.IDs()) argv.push_back(id);
      _exit(Program(argv)());
    }
    writeEnd.Reset();
    // It has to say something every 200 ms, and finds no room for it.
    EXPECT_FALSE(WaitUntil(
        [&] {
          siginfo_t info = {};
          return waitid(P_PID, static_cast<id_t>(engine), &info, WEXITED | WNOHANG | WNOWAIT) !=
                     0 ||
                 info.si_pid == engine;
        },
        0.5));
    std::string out;
    char buffer[512];
    for (ssize_t n; (n = read(readEnd.Get(), buffer, sizeof buffer)) > 0;)
      out.append(buffer, static_cast<size_t>(n));
    EXPECT_EQ(0, WaitForExit(engine));
    EXPECT_EQ(world_.Expected(), SizesIn(out));
  }
  Figure("full pipes", 2);
}

}  // namespace
