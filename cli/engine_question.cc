#include "cli/engine_question.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "cli/engine_places.h"
#include "cli/failure.h"

namespace ZorvSnapUsage {
namespace {

using std::chrono::steady_clock;

constexpr size_t kMostText = 1 << 20;
constexpr std::chrono::seconds kTimeToCheck{30};

}  // namespace

EngineQuestion::EngineQuestion(const char* option, const std::string& directory) {
  try {
    Pipe out = MakePipe();
    const UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    // Ctrl-C is the caller's; what it asks ends with it.
    program_ = std::make_unique<ChildProgram>(
        std::vector<std::string>{kBtrfsProgram, "subvolume", "size", option, "-r", directory},
        out.write.Get(), null.Get(), CtrlC::kDoesNotReachIt);
    out_ = std::move(out.read);
    // The other end waits when it is full.
    (void)fcntl(out_.Get(), F_SETFL, O_NONBLOCK);
  } catch (const Failure&) {
    // An answer that is not there is an empty one.
  }
}

EngineQuestion::~EngineQuestion() {
  if (program_) program_->Kill();
}

std::optional<std::string> EngineQuestion::Answer() {
  if (!program_) return "";
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
