// Runs the engine's program and takes its lines apart.
//
// The engine is at ZORV_ENGINE_PATH; the stock program, which makes the file systems and says the
// kernel's numbers, is at ZorvTest::kStockBtrfs.
#ifndef TESTS_ENGINE_ENGINE_RUN_H_
#define TESTS_ENGINE_ENGINE_RUN_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

namespace ZorvTest {

using Sizes = std::map<unsigned long long, unsigned long long>;

struct EngineRun {
  int status = -1;
  std::string out;
  std::string err;
  std::vector<std::string> lines;  // of standard output, without their ends
  Sizes sizes;                     // from the subvol lines
};

inline std::vector<std::string> EngineCommand(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {ZORV_ENGINE_PATH, "subvolume", "size"};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

// Takes the output of an engine that ended apart.
inline EngineRun ParseRun(const CommandResult& result) {
  EngineRun run;
  run.status = result.status;
  run.out = result.out;
  run.err = result.err;
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) {
    run.lines.push_back(line);
    unsigned long long id = 0, bytes = 0;
    if (sscanf(line.c_str(), "subvol(%llu) %llu bytes", &id, &bytes) == 2) run.sizes[id] = bytes;
  }
  return run;
}

inline EngineRun RunEngine(const std::vector<std::string>& args) {
  return ParseRun(Run(EngineCommand(args)));
}

// The engine's numbers for subvolumes of a volume by their IDs; the run must succeed. `options` are
// words with blanks between them.
inline Sizes EngineSizes(const std::string& options, const std::string& mountPoint,
                         const std::vector<unsigned long long>& ids) {
  std::vector<std::string> args = {"-r", mountPoint};
  std::istringstream words(options);
  for (std::string word; words >> word;) args.push_back(word);
  for (const unsigned long long id : ids) args.push_back(std::to_string(id));
  const EngineRun run = RunEngine(args);
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("", run.err);
  return run.sizes;
}

// Both forms of a failure: exit status, standard error, and the last line of standard output.
inline void ExpectFailure(const EngineRun& run, const std::string& error,
                          const std::string& unavailable) {
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("ERROR: " + error + "\n", run.err);
  ASSERT_FALSE(run.lines.empty());
  EXPECT_EQ("exclusive sizes unavailable: " + unavailable, run.lines.back());
  EXPECT_TRUE(run.sizes.empty());
}

// The generation that the numbers of a run are for; 0 when it gave none.
inline unsigned long long GenerationOf(const EngineRun& run) {
  unsigned long long generation = 0;
  for (const std::string& line : run.lines)
    (void)sscanf(line.c_str(), "generation %llu", &generation);
  return generation;
}

// What --stats said of something; empty when it said nothing of it.
inline std::string StatOf(const EngineRun& run, const std::string& what) {
  const std::string begin = "STATS: " + what + " ";
  const size_t at = run.err.find(begin);
  if (at == std::string::npos) return "";
  const size_t from = at + begin.size();
  return run.err.substr(from, run.err.find('\n', from) - from);
}

// A number of --stats; 0 when it is not there.
inline unsigned long long NumberOf(const EngineRun& run, const std::string& what) {
  return strtoull(StatOf(run, what).c_str(), nullptr, 10);
}

// Random moments in the middle of runs that are alike.  How long such a run takes on this machine,
// now, shows in which moments came too late.
class RandomMoment {
 public:
  // `longest` microseconds are what such a run is thought to take at first; `most`: runs that do
  // not end by themselves are waited for no longer.
  explicit RandomMoment(uint32_t longest = 5000, uint32_t most = 60000000)
      : longest_(longest), most_(most) {}

  // Microseconds after which to look at the next run.
  useconds_t Next() { return static_cast<useconds_t>(random_() % longest_); }

  // Whether that run had not ended yet.
  void WasMet(bool met) {
    longest_ = met ? std::min(longest_ + longest_ / 4 + 1, most_) : longest_ - longest_ / 4;
  }

 private:
  std::mt19937 random_{1};
  uint32_t longest_;
  const uint32_t most_;
};

// An engine that runs while the test looks at it; its standard output is a pipe.
class EngineProcess {
 public:
  // `pipeFlags` O_DIRECT: each read of the pipe gives what one write gave.
  explicit EngineProcess(const std::vector<std::string>& args, int pipeFlags = 0)
      : EngineProcess(Whole{EngineCommand(args)}, pipeFlags) {}

  // A command that becomes the engine by exec.
  struct Whole {
    std::vector<std::string> argv;
  };
  explicit EngineProcess(const Whole& command, int pipeFlags = 0) {
    int ends[2];
    if (pipe2(ends, pipeFlags | O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    out_.Reset(ends[0]);
    UniqueFd write(ends[1]);
    err_.Reset(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    std::vector<char*> argv;
    for (const std::string& arg : command.argv) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    front_ = fork();
    if (front_ != 0) return;
    dup2(write.Get(), STDOUT_FILENO);
    dup2(err_.Get(), STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  ~EngineProcess() {
    if (worker_ > 0) (void)kill(worker_, SIGCONT);
    if (front_ <= 0) return;
    (void)kill(front_, SIGKILL);
    (void)WaitForExit(front_);
  }
  EngineProcess(const EngineProcess&) = delete;
  EngineProcess& operator=(const EngineProcess&) = delete;

  pid_t Front() const { return front_; }
  pid_t Worker() const { return worker_; }
  const UniqueFd& Out() const { return out_; }

  // Waits for the worker, leaves it `delay` microseconds to work, and stops it.  False: it had
  // ended.
  bool StopWorker(useconds_t delay = 0) {
    const std::string children =
        "/proc/" + std::to_string(front_) + "/task/" + std::to_string(front_) + "/children";
    while (worker_ == 0 && !FrontEnded()) {
      std::ifstream list(children);
      list >> worker_;
    }
    if (delay > 0) usleep(delay);
    return worker_ != 0 && kill(worker_, SIGSTOP) == 0 && StateOfWorker() == 'T';
  }
  void ContinueWorker() const { (void)kill(worker_, SIGCONT); }

  // Whether the worker is gone, or at least can do nothing more.
  bool WorkerEnded() const {
    const char state = StateOfWorker();
    return state == 0 || state == 'Z' || state == 'X';
  }

  // What it has said on standard error so far.
  std::string ErrSoFar() const {
    std::string text;
    char buffer[65536];
    for (ssize_t got;
         (got = pread(err_.Get(), buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;)
      text.append(buffer, static_cast<size_t>(got));
    return text;
  }

  // Closes the test's end of the pipe.
  void LeaveAsReader() { out_.Reset(); }

  // Waits for the end of the front, without reading.  False: not within `seconds`.
  bool FrontEndsWithin(double seconds = 60) {
    return WaitUntil([this] { return FrontEnded(); }, seconds);
  }

  // Reads to the end of the output and waits.
  EngineRun Finish() {
    CommandResult result;
    char buffer[65536];
    for (ssize_t got; (got = read(out_.Get(), buffer, sizeof buffer)) > 0;)
      result.out.append(buffer, static_cast<size_t>(got));
    result.status = WaitForExit(front_);
    front_ = 0;
    result.err = ErrSoFar();
    return ParseRun(result);
  }

 private:
  bool FrontEnded() const {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(front_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == front_;
  }

  // State letter of the worker; 0 when there is no such process.  A stop takes a moment to be seen.
  char StateOfWorker() const {
    char state = 0;
    for (int look = 0; look < 100 && (look == 0 || state == 'R' || state == 'D'); ++look) {
      if (look > 0) usleep(1000);
      state = 0;
      std::ifstream stat("/proc/" + std::to_string(worker_) + "/stat");
      std::string text;
      if (std::getline(stat, text)) state = text[text.rfind(')') + 2];
    }
    return state;
  }

  pid_t front_ = 0;
  pid_t worker_ = 0;
  UniqueFd out_;
  UniqueFd err_;
};

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_ENGINE_RUN_H_
