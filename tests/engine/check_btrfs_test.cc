// --check, --estimate and --stats on real file systems, and what is said of subvolumes that go
// away.
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/io_uring.h>
#include <linux/seccomp.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <regex>

#include "tests/engine/history.h"
#include "tests/support/sanitizer.h"

using namespace ZorvTest;

namespace {

bool HasLine(const EngineRun& run, const std::string& line) {
  return std::find(run.lines.begin(), run.lines.end(), line) != run.lines.end();
}

class Check : public testing::Test {
 protected:
  Check() { MakeHistory(volume_, 100, 4); }
  std::string Id(const std::string& name) const {
    return std::to_string(SubvolumeID(volume_.Path(name)));
  }

  BtrfsVolume volume_{kMount, Options(256, {"-n", "4096"})};
};

using Estimate = Check;
using Stats = Check;

}  // namespace

TEST_F(Check, SaysThatARunWouldWork) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--check", "-r", kMount},
        {"--check", "-r", kMount, Id("snap1"), Id("live")},
        {"--check", volume_.Path("snap1"), volume_.Path("live")}}) {
    SCOPED_TRACE(testing::PrintToString(args));
    const EngineRun run = RunEngine(args);
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("", run.err);
    EXPECT_EQ("verdict: a run would work", run.lines.back());
    EXPECT_TRUE(HasLine(run, "ok: every device is there"));
    for (const std::string& line : run.lines) EXPECT_TRUE(line.rfind("problem", 0) != 0) << line;
  }
}

TEST_F(Check, NamesEachProblem) {
  const EngineRun run = RunEngine({"--check", "-r", kMount, "4000", Id("live"), "4001"});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("verdict: a run would fail, because of the problems above", run.lines.back());
  for (const char* id : {"4000", "4001"})
    EXPECT_TRUE(HasLine(run, std::string("problem: there is no subvolume ") + id +
                                 " on the file system; see btrfs subvolume list"))
        << run.out;
  EXPECT_TRUE(HasLine(run, "ok: 1 of the subvolumes asked about are there")) << run.out;
}

TEST_F(Check, NamesWhatIsWrongWithAPath) {
  std::filesystem::create_directory(volume_.Path("plain"));
  const EngineRun plain = RunEngine({"--check", volume_.Path("plain")});
  EXPECT_EQ(1, plain.status);
  EXPECT_TRUE(
      HasLine(plain, "problem: /volume1/plain is not a subvolume; give the root directory of one"));
  const EngineRun elsewhere = RunEngine({"--check", "-r", "/tmp", "5"});
  EXPECT_EQ(1, elsewhere.status);
  EXPECT_TRUE(HasLine(elsewhere, "problem: /tmp is not on btrfs"));
  EXPECT_EQ("verdict: a run would fail, because of the problem above", elsewhere.lines.back());
}

TEST_F(Check, SaysThatRootIsNeeded) {
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/usr/local/engine",
                             std::filesystem::copy_options::overwrite_existing);
  const CommandResult result =
      ZorvTest::Run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                     "/usr/local/engine", "subvolume", "size", "--check", "-r", kMount});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(
      "problem: this needs root, because the device is read directly; try sudo\n"
      "verdict: a run would fail, because of the problem above\n",
      result.out);
}

// A check that works promises a run that works, and the other way round.
TEST_F(Check, AgreesWithTheRun) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"-r", kMount, Id("live")},
                                               {"-r", kMount, "4000"},
                                               {"-r", kMount, "x"},
                                               {volume_.Path("snap1"), "/nowhere"},
                                               {volume_.Path("snap1"), volume_.Path("live")}}) {
    SCOPED_TRACE(testing::PrintToString(args));
    std::vector<std::string> check = args;
    check.push_back("--check");
    EXPECT_EQ(RunEngine(args).status, RunEngine(check).status);
  }
}

TEST(CheckDevices, NamesAMissingOne) {
  BtrfsVolume volume(kMount, {0, {"-m", "raid1", "-d", "raid1"}, "", {256, 256}});
  volume.Subvolume("live");
  MountWithout(volume, 1);
  const EngineRun run = RunEngine({"--check", "-r", kMount, "5"});
  EXPECT_EQ(0, run.status);
  EXPECT_NE(std::string::npos, run.out.find("note: device 2 ")) << run.out;
  EXPECT_FALSE(HasLine(run, "ok: every device is there"));
}

// Parity would bring the blocks back, but is not used: the chunks tell beforehand.
TEST(CheckDevices, NamesAMissingOneThatHasTheOnlyCopy) {
  for (const char* profile : {"raid5"}) {
    SCOPED_TRACE(profile);
    BtrfsVolume volume(kMount,
                       {0, {"-m", profile, "-d", profile, "-n", "4096"}, "", {256, 256, 256, 256}});
    MakeHistory(volume, 100, 4);
    volume.Unmount();
    volume.RemoveDevice(1);
    volume.SetMountOptions("degraded");
    volume.Mount();
    const EngineRun run = RunEngine({"--check", "-r", kMount, "5"});
    EXPECT_EQ(1, run.status);
    EXPECT_NE(std::string::npos, run.out.find("problem: device 2 ")) << run.out;
    EXPECT_NE(std::string::npos, run.out.find(" have no copy elsewhere ")) << run.out;
    EXPECT_EQ("verdict: a run would fail, because of the problem above", run.lines.back());
  }
}

TEST_F(Check, NotesThatNoTemporaryFileCanBeMade) {
  ASSERT_EQ(0, mount("none", "/var/tmp", "tmpfs", 0, "size=4k"));
  const EngineRun run = RunEngine({"--check", "-r", kMount});
  EXPECT_EQ(0, umount("/var/tmp"));
  EXPECT_EQ(0, run.status);
  EXPECT_NE(std::string::npos,
            run.out.find("note: a run works while its arrays fit into --memory; beyond that there "
                         "is no room for "))
      << run.out;
  EXPECT_EQ("verdict: a run would work", run.lines.back());
}

namespace {

// Bytes of the blocks of the extent tree, as the stock program lists them.
unsigned long long BytesOfExtentTree(const BtrfsVolume& volume) {
  const std::string tree =
      MustRun({kStockBtrfs, "inspect-internal", "dump-tree", "-t", "extent", volume.Device()});
  const std::regex block("\n(leaf [0-9]+ items|node [0-9]+ level) ");
  return 4096u * static_cast<unsigned long long>(
                     std::distance(std::sregex_iterator(tree.begin(), tree.end(), block), {}));
}

}  // namespace

TEST_F(Estimate, IsTheExtentTree) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--estimate", "-r", kMount},
                                               {"--estimate", volume_.Path("live")}}) {
    // What was done last may still bring a commit between the two.
    unsigned long long bytes = 0, listed = 0;
    EXPECT_TRUE(WaitUntil(
        [&] {
          const EngineRun run = RunEngine(args);
          EXPECT_EQ(0, run.status) << run.err;
          EXPECT_EQ(1u, run.lines.size());
          EXPECT_EQ(1, sscanf(run.out.c_str(), "total %llu bytes\n", &bytes));
          listed = BytesOfExtentTree(volume_);
          return bytes == listed;
        },
        20))
        << bytes << " and " << listed;
    EXPECT_GT(bytes, 3u * 4096);
  }
}

TEST_F(Estimate, FailsAsARunDoes) {
  ExpectFailure(RunEngine({"--estimate", "-r", "/tmp"}), "/tmp is not on btrfs",
                "/tmp is not on btrfs");
  ExpectFailure(RunEngine({"--estimate", "-r", kMount, "abc"}),
                "\"abc\" is not a subvolume ID: decimal digits are expected",
                "\"abc\" is not a subvolume ID: decimal digits are expected");
}

// Too little address space for the stack of a thread.
TEST_F(Estimate, SaysThatThereIsNoThread) {
  NEEDS_MEMORY_LIMITS();
  bool said = false;
  for (int kibibytes = 6000; kibibytes <= 16000 && !said; kibibytes += 500) {
    const CommandResult result =
        ZorvTest::Run({"bash", "-c", "ulimit -v " + std::to_string(kibibytes) + "; exec \"$@\"",
                       "bash", ZORV_ENGINE_PATH, "subvolume", "size", "--estimate", "-r", kMount});
    EXPECT_EQ(std::string::npos, result.err.find("internal error")) << result.err;
    said = result.err.rfind("ERROR: the system gives no further thread (", 0) == 0;
  }
  EXPECT_TRUE(said);
}

TEST_F(Stats, GoToStandardErrorAndChangeNothingElse) {
  const EngineRun plain = RunEngine({"-vm", volume_.Path("live"), volume_.Path("snap1")});
  const EngineRun run =
      RunEngine({"--stats", "--method=scan", "-vm", volume_.Path("live"), volume_.Path("snap1")});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(plain.sizes, run.sizes);
  EXPECT_EQ(std::string::npos, run.out.find("STATS"));
  EXPECT_EQ("scan", StatOf(run, "method"));
  for (const char* counted : {"blocks", "bytes", "requests", "sets", "peak-memory"})
    EXPECT_GT(strtoull(StatOf(run, counted).c_str(), nullptr, 10), 0u) << counted;
  EXPECT_EQ("0", StatOf(run, "mirrors"));
  for (const char* phase : {"phase arguments", "phase commit", "phase roots"})
    EXPECT_NE("", StatOf(run, phase)) << phase;
}

TEST_F(Stats, SayTheWayOfCountingAndWhy) {
  EXPECT_EQ("walk", StatOf(RunEngine({"--stats", "--method=walk", kMount}), "method"));
  EXPECT_EQ("scan and walk", StatOf(RunEngine({"--stats", "--verify", kMount}), "method"));
  const std::string chosen = StatOf(RunEngine({"--stats", "--method=auto", kMount}), "method");
  EXPECT_TRUE(chosen.rfind("scan (", 0) == 0 || chosen.rfind("walk (", 0) == 0) << chosen;
}

// Enough blocks that more than one is in flight.
TEST_F(Stats, SayHowWasRead) {
  WriteFiles("live", 1000, 2000, 7);
  const std::string live = volume_.Path("live");
  const EngineRun ring = RunEngine({"--stats", "-vm", live});
  const EngineRun threads = RunEngine({"--stats", "--no-ring", "--threads", "1", "-vm", live});
  EXPECT_EQ("threads", StatOf(threads, "reading"));
  const std::string way = StatOf(ring, "reading");
  EXPECT_TRUE(way == "io_uring" || way == "threads") << way;
  EXPECT_EQ(ring.sizes, threads.sizes);
}

namespace {

// Has the kernel answer `error` to this process, and to those it starts, when they ask for a ring.
void RefuseRing(int error) {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_io_uring_setup, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {std::size(code), code};
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
    throw std::runtime_error("no filter of system calls");
}

// The engine where the kernel refuses a ring; and that it does.
EngineRun RunWithoutRing(int error, const std::vector<std::string>& args) {
  const std::string folder = "/tmp/refused/";
  CommandResult result;
  result.status = InChild([&] {
    RefuseRing(error);
    io_uring_params parameters{};
    if (syscall(__NR_io_uring_setup, 8, &parameters) != -1 || errno != error) return 99;
    const EngineRun run = RunEngine(args);
    WriteFile(folder + "out", run.out);
    WriteFile(folder + "err", run.err);
    return run.status;
  });
  result.out = ReadFile(folder + "out");
  result.err = ReadFile(folder + "err");
  std::filesystem::remove_all(folder);
  return ParseRun(result);
}

bool RingIsThere() {
  io_uring_params parameters{};
  return UniqueFd(static_cast<int>(syscall(__NR_io_uring_setup, 8, &parameters))).Valid();
}

}  // namespace

TEST_F(Stats, SayThatThreadsReadWhereTheKernelRefusesARing) {
  WriteFiles("live", 1000, 2000, 7);
  const std::vector<std::string> args = {"--stats", "--table",  "-vm",       "-r",       kMount,
                                         "5",       Id("live"), Id("snap1"), Id("snap3")};
  const EngineRun allowed = RunEngine(args);
  ASSERT_EQ(0, allowed.status) << allowed.err;
  EXPECT_EQ(RingIsThere() ? "io_uring" : "threads", StatOf(allowed, "reading"));
  for (const int error : {EPERM, ENOSYS, ENOMEM}) {
    SCOPED_TRACE(strerror(error));
    const EngineRun refused = RunWithoutRing(error, args);
    EXPECT_EQ(0, refused.status) << refused.err;
    EXPECT_EQ("threads", StatOf(refused, "reading"));
    EXPECT_EQ(4u, refused.sizes.size());
    EXPECT_EQ(allowed.sizes, refused.sizes);
    EXPECT_EQ(allowed.lines.back(), refused.lines.back());
  }
}

TEST_F(Stats, AreSilentOnFailure) {
  const EngineRun run = RunEngine({"--stats", "-r", kMount, "4000"});
  EXPECT_EQ(std::string::npos, run.err.find("STATS"));
}

// The worker has seen the subvolume and is stopped before it reads; then the subvolume goes.
TEST(DeletedMeanwhile, IsNamedWithItsPath) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  std::filesystem::create_directory(volume.Path("kept"));
  bool byId = false, byPath = false;
  RandomMoment moment;
  for (unsigned round = 0; !(byId && byPath); ++round) {
    ASSERT_LT(round, 2000u) << "no run was stopped between the two";
    const std::string name = "kept/snap" + std::to_string(round);
    const std::string path = volume.Snapshot("live", name);
    const std::string id = std::to_string(SubvolumeID(path));
    const bool useId = !byId;
    EngineProcess engine(useId ? std::vector<std::string>{"-vm", "-r", kMount, id}
                               : std::vector<std::string>{"-vm", path});
    const bool stopped = engine.StopWorker(moment.Next());
    moment.WasMet(stopped);
    volume.DeleteSubvolume(name);
    MustRun({"sync", "-f", kMount});
    if (stopped) engine.ContinueWorker();
    const EngineRun run = engine.Finish();
    const std::string shown = useId ? name : path;
    const std::string named =
        "ERROR: subvolume " + id + " (" + shown + ") was deleted meanwhile; ask again without it (";
    if (run.err.rfind(named, 0) == 0) (useId ? byId : byPath) = true;
    EXPECT_EQ(run.status != 0, run.err.find("ERROR: ") != std::string::npos) << run.err;
  }
}
