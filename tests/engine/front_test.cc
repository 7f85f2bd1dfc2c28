// The front: what it prints and when, and that neither a dead worker nor a lost reader goes unseen.
#include "engine/front.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <regex>

#include "tests/engine/engine_run.h"
#include "tests/support/sanitizer.h"
#include "tests/support/syscall_stepper.h"

using namespace ZorvTest;

namespace {

constexpr char kMount[] = "/volume1";

// A volume that takes a run a moment: many subvolumes, and changes that wait for a commit.
class Front : public testing::Test {
 protected:
  Front() {
    volume_.Subvolume("live");
    for (unsigned n = 0; n < 40; ++n) WriteFile(volume_.Path("live/" + std::to_string(n)), "x");
    for (unsigned n = 0; n < 20; ++n) {
      const std::string name = "snap" + std::to_string(n);
      WriteRandom(volume_.Path("live/file"), 300000, n);
      paths_.push_back(volume_.Snapshot("live", name));
    }
  }

  std::vector<std::string> Args(const std::string& options) const {
    std::vector<std::string> args = {options};
    args.insert(args.end(), paths_.begin(), paths_.end());
    return args;
  }

  // Options that give `count` IDs that nobody has, each twice: a note for each, then a failure.
  static std::vector<std::string> RepeatedIds(unsigned count) {
    std::vector<std::string> args = {"-vm", "-r", kMount};
    for (unsigned repeat = 0; repeat < 2; ++repeat)
      for (unsigned n = 0; n < count; ++n) args.push_back(std::to_string(kUnusedId + n));
    return args;
  }
  static constexpr unsigned kUnusedId = 1000000;

  // What a descriptor of the worker is open on.
  static std::string OpenOn(const EngineProcess& engine, int fd) {
    std::error_code gone;
    return std::filesystem::read_symlink(
        "/proc/" + std::to_string(engine.Worker()) + "/fd/" + std::to_string(fd), gone);
  }

  // An engine whose worker has been stopped in the middle of its run: after it let the standard
  // streams go, which is the last of its preparations.
  std::unique_ptr<EngineProcess> Stopped(const std::string& options, int pipeFlags = 0) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
      WriteFile(volume_.Path("dirty"), std::to_string(attempt));
      auto engine = std::make_unique<EngineProcess>(Args(options), pipeFlags);
      bool stopped = engine->StopWorker();
      while (stopped && OpenOn(*engine, STDERR_FILENO) != "/dev/null") {
        engine->ContinueWorker();
        usleep(100);
        stopped = engine->StopWorker();
      }
      if (stopped) return engine;
    }
    throw std::runtime_error("every run ended before it could be stopped");
  }

  BtrfsVolume volume_{kMount};
  std::vector<std::string> paths_;
};

// A pipe that is full: a standard error that nobody reads.
class FullPipe {
 public:
  FullPipe() {
    (void)unlink(kPath);
    if (mkfifo(kPath, 0600) != 0) throw std::runtime_error("no pipe");
    fd_.Reset(open(kPath, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::string page(PIPE_BUF, '.');
    while (write(fd_.Get(), page.data(), page.size()) > 0) filled_ += page.size();
  }
  ~FullPipe() { (void)unlink(kPath); }

  // The engine with the pipe as its standard error.
  static EngineProcess::Whole Engine(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"bash", "-c", std::string("exec \"$@\" 2> ") + kPath, "bash"};
    for (const std::string& word : EngineCommand(args)) argv.push_back(word);
    return {argv};
  }

  // What has been written behind what filled it, as far as it has come.
  std::string Read() {
    char buffer[65536];
    for (ssize_t got; (got = read(fd_.Get(), buffer, sizeof buffer)) > 0;)
      text_.append(buffer, static_cast<size_t>(got));
    return text_.size() < filled_ ? "" : text_.substr(filled_);
  }

 private:
  static constexpr char kPath[] = "/tmp/full-pipe";

  UniqueFd fd_;
  size_t filled_ = 0;
  std::string text_;
};

// Has the kernel end this process, and those it starts, when they send SIGKILL by kill(2).
void ForbidKill() {
  constexpr uint32_t kSignal = offsetof(seccomp_data, args[1]);  // low half: little-endian
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_kill, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kSignal),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SIGKILL, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {std::size(code), code};
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
    throw std::runtime_error("no filter of system calls");
}

// Bytes of address space that a process has.
rlim_t AddressSpace(pid_t process) {
  return std::stoull(ReadFile("/proc/" + std::to_string(process) + "/statm")) *
         static_cast<rlim_t>(getpagesize());
}

const std::regex kDocumented(
    "generation \\d+|total \\d+ bytes|processed \\d+ bytes|exclusive \\d+ bytes|"
    "subvol\\(\\d+\\) \\d+ bytes");

// Checks the relations between the lines of a run that succeeded.
void ExpectSoundLines(const EngineRun& run, size_t subvolumes) {
  EXPECT_EQ(0, run.status) << run.err;
  unsigned long long total = 0, processed = 0, exclusive = 0, sum = 0, value = 0;
  int generations = 0;
  for (const std::string& line : run.lines) {
    EXPECT_TRUE(std::regex_match(line, kDocumented)) << line;
    if (sscanf(line.c_str(), "total %llu", &value) == 1) {
      EXPECT_GE(value, total);
      total = value;
    }
    if (sscanf(line.c_str(), "processed %llu", &value) == 1) {
      EXPECT_GE(value, processed);
      EXPECT_LE(value, total);
      processed = value;
    }
    if (sscanf(line.c_str(), "exclusive %llu", &value) == 1) exclusive = value;
    if (sscanf(line.c_str(), "generation %llu", &value) == 1) ++generations;
  }
  for (const auto& [id, bytes] : run.sizes) sum += bytes;
  EXPECT_EQ(1, generations);
  EXPECT_EQ(total, processed);
  EXPECT_EQ(sum, exclusive);
  EXPECT_EQ(subvolumes, run.sizes.size());
}

}  // namespace

TEST_F(Front, PrintsOnlyTheDocumentedLines) {
  const EngineRun run = RunEngine(Args("-vpm"));
  ExpectSoundLines(run, 20);
  EXPECT_EQ("", run.err);
}

TEST_F(Front, PrintsWhatTheOptionsAskFor) {
  const struct {
    const char* options;
    const char* kinds;  // first letters of the lines, repeats left out
  } kCases[] = {{"-m", "gt"}, {"-vm", "gts"}, {"-pm", "gtpe"}, {"-vpm", "gtpes"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.options);
    const EngineRun run = RunEngine(Args(c.options));
    EXPECT_EQ(0, run.status);
    std::string kinds;
    for (const std::string& line : run.lines)
      if (kinds.find(line[0]) == std::string::npos) kinds += line[0];
    std::sort(kinds.begin(), kinds.end());
    std::string expected = c.kinds;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, kinds);
  }
}

// On a pipe of packets each read gives what one write gave.
TEST_F(Front, WritesEachLineWhole) {
  EngineProcess engine(Args("-vpm"), O_DIRECT);
  char packet[65536];
  int packets = 0;
  for (ssize_t got; (got = read(engine.Out().Get(), packet, sizeof packet)) > 0; ++packets) {
    ASSERT_LE(got, PIPE_BUF);
    const std::string text(packet, static_cast<size_t>(got));
    EXPECT_EQ(text.size() - 1, text.find('\n')) << text;
  }
  EXPECT_GE(packets, 24);
  EXPECT_EQ(0, engine.Finish().status);
}

TEST_F(Front, ShowsProgressWhileTheWorkerStandsStill) {
  constexpr int kLines = 10;
  constexpr double kMostBetween = 0.2;
  constexpr double kLeastBetween = 0.1;
  const auto engine = Stopped("-vpm", O_DIRECT);
  const auto takeLine = [&] {
    for (char packet[256] = {}; strncmp(packet, "processed ", 10) != 0;)
      ASSERT_GT(read(engine->Out().Get(), packet, sizeof packet - 1), 0);
  };
  takeLine();
  const double begin = Seconds();
  EXPECT_LT(ShortestTime(kLines * kMostBetween,
                         [&] {
                           for (int line = 0; line < kLines; ++line) takeLine();
                         }),
            kLines * kMostBetween);
  int lines = 0;
  for (const double end = Seconds() + 1; Seconds() < end; ++lines) takeLine();
  EXPECT_LT(lines * kLeastBetween, Seconds() - begin);
  engine->ContinueWorker();
  ExpectSoundLines(RunEngine(Args("-vpm")), 20);
  EXPECT_EQ(0, engine->Finish().status);
}

TEST_F(Front, LeavesWhenTheReaderHasGoneWhileTheWorkerStandsStill) {
  double shortest = 60;
  for (int attempt = 0; attempt < 10 && shortest > 0.5; ++attempt) {
    const auto engine = Stopped("-v");
    const double left = Seconds();
    engine->LeaveAsReader();
    EXPECT_TRUE(engine->FrontEndsWithin());
    shortest = std::min(shortest, Seconds() - left);
    EXPECT_TRUE(WaitUntil([&] { return engine->WorkerEnded(); }));
  }
  EXPECT_LT(shortest, 0.5);
}

TEST_F(Front, LeavesWhenTheReaderHasGoneWhileTheWorkerWorks) {
  for (int round = 0; round < 10; ++round) {
    EngineProcess engine(Args("-vpm"));
    usleep(static_cast<useconds_t>(round * 2000));
    engine.LeaveAsReader();
    EXPECT_TRUE(engine.FrontEndsWithin());
  }
}

TEST_F(Front, SaysThatTheWorkerWasKilled) {
  const auto engine = Stopped("-vpm");
  kill(engine->Worker(), SIGKILL);
  ExpectFailure(engine->Finish(), "the worker was ended by a signal (Killed); see the kernel's log",
                "the worker was ended by a signal (Killed); see the kernel's log");
}

TEST_F(Front, SaysThatTheWorkerCrashed) {
  const auto engine = Stopped("-vpm");
  kill(engine->Worker(), SIGABRT);
  engine->ContinueWorker();
  ExpectFailure(engine->Finish(),
                "the worker was ended by a signal (Aborted); see the kernel's log",
                "the worker was ended by a signal (Aborted); see the kernel's log");
}

// Its number may be somebody else's by then.
TEST_F(Front, SendsNothingToAWorkerWhoseEndItHasSeen) {
  EXPECT_EQ(0, InChild([&] {
              ForbidKill();
              const auto engine = Stopped("-vpm");
              (void)syscall(SYS_tgkill, engine->Worker(), engine->Worker(), SIGKILL);
              return engine->Finish().status == 1 ? 0 : 1;
            }));
}

TEST_F(Front, GivesAllWhenNobodyReadsStandardError) {
  FullPipe errors;
  const std::string id = std::to_string(SubvolumeID(paths_[0]));
  EngineProcess engine(FullPipe::Engine({"-vpm", "-r", kMount, id, id, "5"}));
  ASSERT_TRUE(engine.FrontEndsWithin(20));
  ExpectSoundLines(engine.Finish(), 2);
}

TEST_F(Front, FailsInWordsWhenNobodyReadsStandardError) {
  FullPipe errors;
  EngineProcess engine(FullPipe::Engine(RepeatedIds(6000)));
  ASSERT_TRUE(engine.FrontEndsWithin(20));
  const EngineRun run = engine.Finish();
  EXPECT_EQ(1, run.status);
  ASSERT_FALSE(run.lines.empty());
  EXPECT_EQ(
      "exclusive sizes unavailable: there is no subvolume # on the file system; see btrfs "
      "subvolume list",
      run.lines.back());
  EXPECT_EQ("", errors.Read().substr(0, 1));
}

TEST_F(Front, WritesNotesAsRoomComes) {
  FullPipe errors;
  EngineProcess engine(FullPipe::Engine(RepeatedIds(6000)));
  usleep(20000);  // a reader that comes late
  std::string text;
  EXPECT_TRUE(WaitUntil([&] { return (text = errors.Read()).find("ERROR: ") != text.npos; }));
  std::istringstream lines(text);
  std::string line;
  for (unsigned n = 0; n < 6000 && std::getline(lines, line); ++n)
    ASSERT_EQ("NOTE: subvolume " + std::to_string(kUnusedId + n) +
                  " is given more than once; it counts once",
              line);
  EXPECT_TRUE(std::getline(lines, line));
  EXPECT_EQ(0u, line.find("ERROR: there is no subvolume ")) << line;
  EXPECT_EQ(1, engine.Finish().status);
}

TEST_F(Front, LeavesWhenTheReaderHasGoneAndNobodyReadsStandardError) {
  double shortest = 60;
  for (int attempt = 0; attempt < 20 && shortest > 0.2; ++attempt) {
    FullPipe errors;
    EngineProcess engine(FullPipe::Engine(RepeatedIds(6000)));
    if (!engine.StopWorker(static_cast<useconds_t>(attempt) * 2000)) continue;
    const double left = Seconds();
    engine.LeaveAsReader();
    ASSERT_TRUE(engine.FrontEndsWithin(20));
    shortest = std::min(shortest, Seconds() - left);
  }
  EXPECT_LT(shortest, 0.2);
}

// The notes that nobody reads take memory that the front is not given.
TEST_F(Front, SaysThatItsMemoryHasRunOut) {
  NEEDS_MEMORY_LIMITS();
  constexpr rlim_t kForItsStack = 256 << 10;
  int said = 0;
  for (int attempt = 0; attempt < 50 && said == 0; ++attempt) {
    FullPipe errors;
    EngineProcess engine(FullPipe::Engine(RepeatedIds(6000)));
    if (!engine.StopWorker()) continue;
    const rlim_t most = AddressSpace(engine.Front()) + kForItsStack;
    const rlimit limit = {most, most};
    ASSERT_EQ(0, prlimit(engine.Front(), RLIMIT_AS, &limit, nullptr));
    engine.ContinueWorker();
    ASSERT_TRUE(engine.FrontEndsWithin(20));
    const EngineRun run = engine.Finish();
    EXPECT_EQ(1, run.status);
    ASSERT_FALSE(run.lines.empty());
    EXPECT_EQ(0u, run.lines.back().find("exclusive sizes unavailable: ")) << run.out;
    said += run.lines.back() == "exclusive sizes unavailable: out of memory";
  }
  EXPECT_EQ(1, said);
}

TEST_F(Front, TheWorkerDiesWithIt) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    SCOPED_TRACE(signal);
    const auto engine = Stopped("-vpm");
    kill(engine->Front(), signal);
    EXPECT_TRUE(engine->FrontEndsWithin());
    EXPECT_TRUE(WaitUntil([&] { return engine->WorkerEnded(); }));
  }
}

// A worker that the kernel does not let go must not keep a reader waiting for the end of the
// output.
TEST_F(Front, TheWorkerHoldsNoStandardStream) {
  const auto engine = Stopped("-vpm");
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    EXPECT_EQ("/dev/null", OpenOn(*engine, fd));
}

TEST_F(Front, GivesTheSameWithALineThatDoesNotFitAtOnce) {
  EngineProcess engine(Args("-vpm"));
  ASSERT_GE(fcntl(engine.Out().Get(), F_SETPIPE_SZ, 4096), 4096);
  usleep(300000);  // a reader that comes late
  ExpectSoundLines(engine.Finish(), 20);
}

TEST_F(Front, SaysWhenTheDiskForItsOutputIsFull) {
  const std::string command =
      std::string(ZORV_ENGINE_PATH) + " subvolume size -v /volume1 > /dev/full";
  const CommandResult result = ZorvTest::Run({"bash", "-c", command});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("ERROR: cannot write: No space left on device\n", result.err);
}

// A reader of the pipe sees no exit status, and would take what came before for all there is.
TEST_F(Front, SaysOnItsOutputThatALineIsMissing) {
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs",
                             std::filesystem::copy_options::overwrite_existing);
  std::string command = "/sbin/btrfs subvolume size -v";
  for (const std::string& path : paths_) command += " " + path;
  SyscallStepper(std::vector<WatchedCall>{{SYS_write}})
      .Run(
          [&] {
            const pid_t shell = fork();
            if (shell == 0)
              _exit(Program({"/bin/bash", "-c", command + " | cat > /tmp/front.out"})());
            return WaitForExit(shell);
          },
          [](const Step& step) {
            const bool isLine =
                step.role == Role::kFront && step.text.find("pipe:") < step.text.size();
            return isLine && step.ofCall == 5 ? Action::Fail(ENOMEM) : Action::GoOn();
          });
  std::filesystem::remove("/sbin/btrfs");
  const std::string out = ReadFile("/tmp/front.out");
  const std::string last = "\nexclusive sizes unavailable: cannot write: Cannot allocate memory\n";
  ASSERT_GT(out.size(), last.size());
  EXPECT_EQ(last, out.substr(out.size() - last.size())) << out;
}

// As a file that may not grow, which a signal tells of too.
TEST_F(Front, SaysWhenAFileMayNotGrow) {
  const std::string limit = "ulimit -f 1; exec \"$@\" > /tmp/short";
  for (const char* format : {"text", "json"}) {
    SCOPED_TRACE(format);
    std::vector<std::string> argv = {"bash", "-c", limit, "bash"};
    std::vector<std::string> args = {"--table", "--format", format};
    if (std::string(format) == "text") args.push_back("-v");
    args.insert(args.end(), paths_.begin(), paths_.end());
    for (const std::string& word : EngineCommand(args)) argv.push_back(word);
    const CommandResult result = ZorvTest::Run(argv);
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(0u, result.err.find("ERROR: cannot write: ")) << result.err;
    const std::string written = ReadFile("/tmp/short");
    EXPECT_TRUE(written.empty() || written.back() == '\n') << written;
    EXPECT_TRUE(std::string(format) != "json" || written.empty()) << written;
  }
  (void)unlink("/tmp/short");
}

TEST(FrontReader, IsNotMissedWhenTheCommandLineIsWrong) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--wrong"}, {"--help"}, {"--version"}}) {
    ASSERT_EQ(0, mkfifo("/tmp/reader-has-gone", 0600));
    EngineProcess engine(EngineProcess::Whole{[&] {
      std::vector<std::string> argv = {"bash", "-c", "read -r < /tmp/reader-has-gone; exec \"$@\"",
                                       "bash"};
      for (const std::string& word : EngineCommand(args)) argv.push_back(word);
      return argv;
    }()});
    engine.LeaveAsReader();
    WriteFile("/tmp/reader-has-gone", "yes\n");
    EXPECT_EQ(1, engine.Finish().status) << args[0];
    (void)unlink("/tmp/reader-has-gone");
  }
}

TEST_F(Front, FailsWithoutStandardOutput) {
  const std::string command = std::string(ZORV_ENGINE_PATH) + " subvolume size -v /volume1 >&-";
  EXPECT_EQ(1, ZorvTest::Run({"bash", "-c", command}).status);
}

TEST_F(Front, LetsTheFileSystemBeUnmountedAtOnce) {
  ASSERT_EQ(0, mkdir("/tmp/bound", 0755));
  const std::string id = std::to_string(SubvolumeID(paths_[0]));
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{"-vm", "-r", "/tmp/bound", id},
        {"--estimate", "-r", "/tmp/bound"}})
    for (int round = 0; round < 20; ++round) {
      ASSERT_EQ(0, mount(kMount, "/tmp/bound", nullptr, MS_BIND, nullptr));
      EXPECT_EQ(0, RunEngine(options).status);
      EXPECT_EQ(0, umount("/tmp/bound")) << strerror(errno);
    }
}

TEST_F(Front, CountsAnIdGivenTwiceOnce) {
  const std::string id = std::to_string(SubvolumeID(paths_[0]));
  const EngineRun run = RunEngine({"-vm", "-r", kMount, id, "5", "000" + id, id});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(2u, run.sizes.size());
  const std::string note = "NOTE: subvolume " + id + " is given more than once; it counts once\n";
  EXPECT_EQ(note, run.err);
  ASSERT_EQ(4u, run.lines.size());
  EXPECT_EQ(0u, run.lines[2].find("subvol(" + id + ") "));
  EXPECT_EQ(0u, run.lines[3].find("subvol(5) "));
}

TEST_F(Front, CountsALinkAndItsTargetOnce) {
  ASSERT_EQ(0, symlink(paths_[0].c_str(), "/tmp/link"));
  const unsigned long long id = SubvolumeID(paths_[0]);
  const EngineRun run = RunEngine({"-vm", "/tmp/link", paths_[0], paths_[0] + "/."});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(1u, run.sizes.count(id));
  EXPECT_EQ(1u, run.sizes.size());
  const std::string note =
      "NOTE: subvolume " + std::to_string(id) + " is given more than once; it counts once\n";
  EXPECT_EQ(note, run.err);
  (void)unlink("/tmp/link");
}

TEST_F(Front, TakesADirectoryThatIsALinkOrLiesBelowTheMount) {
  ASSERT_EQ(0, symlink(kMount, "/tmp/volume"));
  std::filesystem::create_directory(volume_.Path("plain"));
  const std::string id = std::to_string(SubvolumeID(paths_[3]));
  const Sizes sizes = RunEngine({"-vm", "-r", kMount, id}).sizes;
  EXPECT_EQ(1u, sizes.size());
  EXPECT_EQ(sizes, RunEngine({"-vm", "-r", "/tmp/volume", id}).sizes);
  EXPECT_EQ(sizes, RunEngine({"-vm", "-r", volume_.Path("plain"), id}).sizes);
  EXPECT_EQ(sizes, RunEngine({"-vm", "-r", paths_[1], id}).sizes);
  (void)unlink("/tmp/volume");
}

TEST_F(Front, AnswersTheSameByPrefixes) {
  const CommandResult prefixed = ZorvTest::Run({ZORV_ENGINE_PATH, "su", "si", "-v", paths_[2]});
  EXPECT_EQ(0, prefixed.status);
  EXPECT_EQ(RunEngine({"-v", paths_[2]}).out, prefixed.out);
}

TEST(FrontSayFailure, SaysItTwice) {
  ExpectFailure(RunEngine({"-v", "/nowhere\n257"}),
                "cannot open /nowhere?257: No such file or directory",
                "cannot open /nowhere?#: No such file or directory");
}
