#include "cli/engine_question.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ZorvSnapUsage {
namespace {

using std::chrono::steady_clock;

constexpr char kCommand[] = "/sbin/btrfs";
constexpr size_t kMostText = 1 << 20;
constexpr std::chrono::seconds kTimeToCheck{30};

[[noreturn]] void Ask(const char* option, const std::string& directory, int out, pid_t parent) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  (void)dup2(null, STDIN_FILENO);
  (void)dup2(out, STDOUT_FILENO);
  (void)dup2(null, STDERR_FILENO);
  (void)signal(SIGINT, SIG_IGN);  // Ctrl-C is the caller's; what it asks ends with it
  (void)execl(kCommand, kCommand, "subvolume", "size", option, "-r", directory.c_str(), nullptr);
  _exit(1);
}

}  // namespace

EngineQuestion::EngineQuestion(const char* option, const std::string& directory) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
  out_.Reset(ends[0]);
  const UniqueFd writeEnd(ends[1]);
  const pid_t self = getpid();
  pid_ = fork();
  if (pid_ != 0) return;
  // The other end of its pipe waits when it is full.
  (void)fcntl(ends[1], F_SETFL, 0);
  Ask(option, directory, ends[1], self);
}

EngineQuestion::~EngineQuestion() {
  if (pid_ < 0) return;
  (void)kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
}

std::optional<std::string> EngineQuestion::Answer() {
  if (pid_ < 0) return "";
  char buffer[4096];
  while (text_.size() < kMostText) {
    const ssize_t length = read(out_.Get(), buffer, sizeof buffer);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return std::nullopt;
    if (length <= 0) break;
    text_.append(buffer, static_cast<size_t>(length));
  }
  return text_;
}

std::string EngineQuestion::WaitForAnswer(std::chrono::seconds limit) {
  const steady_clock::time_point end = steady_clock::now() + limit;
  for (;;) {
    if (const std::optional<std::string> answer = Answer()) return *answer;
    if (steady_clock::now() > end) return "";
    struct pollfd readable = {out_.Get(), POLLIN, 0};
    (void)poll(&readable, 1, /*milliseconds=*/100);
  }
}

std::optional<unsigned long long> EstimateIn(const std::string& answer) {
  unsigned long long total = 0;
  int length = 0;
  if (sscanf(answer.c_str(), "total %llu bytes%n", &total, &length) != 1 || length == 0)
    return std::nullopt;
  return total;
}

std::string WhyItFails(const std::string& directory) {
  constexpr char kBecause[] = "verdict: a run would fail, because of ";
  EngineQuestion question("--check", directory);
  const std::string answer = question.WaitForAnswer(kTimeToCheck);
  const size_t at = answer.rfind(kBecause);
  if (at == std::string::npos) return "";
  const size_t begin = at + sizeof kBecause - 1;
  return answer.substr(begin, answer.find('\n', begin) - begin);
}

}  // namespace ZorvSnapUsage
