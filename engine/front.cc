#include "engine/front.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <numeric>
#include <optional>
#include <set>

#include "base/unique_fd.h"
#include "engine/channel.h"
#include "engine/lines.h"
#include "engine/stats_lines.h"
#include "engine/table_json.h"
#include "engine/table_lines.h"
#include "engine/worker.h"

namespace ZorvEngine {
namespace {

using Clock = std::chrono::steady_clock;

// Progress is due every 200 ms at the latest; a little earlier leaves room for a busy machine.
constexpr auto kProgressInterval = std::chrono::milliseconds(150);

// How long a worker that has closed its channel may take to be gone.
constexpr auto kWorkerEnd = std::chrono::milliseconds(1000);

enum class Wait { kTick, kChannel, kReaderGone };

class Front {
 public:
  Front(const Options& options, SizeProgress& progress, UniqueFd channel, pid_t worker)
      : options_(options), progress_(progress), channel_(std::move(channel)), worker_(worker) {}

  int Run() {
    Clock::time_point tick = Clock::now() + kProgressInterval;
    for (;;) {
      const Wait woken = WaitUntil(tick);
      if (woken == Wait::kReaderGone) return Leave();
      if (woken == Wait::kTick) {
        tick = Clock::now() + kProgressInterval;
        if (options_.progress && !PrintProgress()) return OutputFailed();
        continue;
      }
      const bool open = messages_.Receive(channel_.Get());
      while (std::optional<Message> message = messages_.Next()) {
        if (std::optional<int> ended = Take(*message)) return *ended;
      }
      if (!open) return Fail(HowWorkerEnded());
    }
  }

 private:
  // Does what a message says; the exit status when it is the last one.
  std::optional<int> Take(const Message& message) {
    switch (message.kind) {
      case Message::kNote:
        (void)WriteLine(STDERR_FILENO, NoteLine(message.payload));
        return std::nullopt;
      case Message::kResultPart:
        result_ += message.payload;
        return std::nullopt;
      case Message::kResult:
        result_ += message.payload;
        return PrintResult();
      case Message::kLine:
        if (WriteLine(STDOUT_FILENO, message.payload)) return std::nullopt;
        return OutputFailed();
      case Message::kYes:
        return 0;
      case Message::kNo:
        return 1;
      case Message::kFailure:
        break;
    }
    return Fail(message.payload);
  }

  // Waits for the worker's words, the tick, or the end of the reader (which wakes a poll for
  // nothing as an error or a hang-up).
  Wait WaitUntil(Clock::time_point tick) const {
    pollfd watched[] = {{channel_.Get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(tick - Clock::now()).count();
    const int ready = poll(watched, 2, static_cast<int>(std::max<long>(left, 0)));
    if (ready > 0 && watched[1].revents != 0) return Wait::kReaderGone;
    return ready > 0 ? Wait::kChannel : Wait::kTick;
  }

  // Takes `processed` before `total`, so that the printed one never passes the other.
  bool PrintProgress() {
    const uint64_t processed = progress_.meter.processed;
    const uint64_t exclusive = progress_.exclusiveBytes;
    if (!PrintTotal()) return false;
    return WriteLine(STDOUT_FILENO, ProcessedLine(processed)) && PrintExclusive(exclusive);
  }

  bool PrintTotal() {
    const uint64_t total = progress_.meter.total;
    if (printedTotal_ == total) return true;
    printedTotal_ = total;
    return WriteLine(STDOUT_FILENO, TotalLine(total));
  }

  bool PrintExclusive(uint64_t bytes) {
    if (printedExclusive_ == bytes) return true;
    printedExclusive_ = bytes;
    return WriteLine(STDOUT_FILENO, ExclusiveLine(bytes));
  }

  int PrintResult() {
    try {
      return PrintResultOrThrow();
    } catch (const std::bad_alloc&) {
      return Fail("out of memory");
    }
  }

  int PrintResultOrThrow() {
    SizeResult result;
    if (!DecodeResult(result_, &result)) return Fail("internal error: an unreadable result");
    result_.clear();
    std::vector<ForecastStep> plan;
    if (!options_.forecast.empty() && !PlanIsKnown(result.table, &plan))
      return Fail("internal error: a result without the plan");
    const bool printed = options_.json ? PrintJson(result, plan)
                                       : PrintNumbers(result) && PrintTables(result.table, plan);
    if (!printed) return OutputFailed();
    if (options_.stats)
      for (const std::string& line : StatsLines(progress_)) (void)WriteLine(STDERR_FILENO, line);
    return 0;
  }

  // The subvolumes of the plan are the first of those asked about, each once.
  bool PlanIsKnown(const SizeTable& table, std::vector<ForecastStep>* plan) const {
    const std::set<uint64_t> planned(options_.forecast.begin(), options_.forecast.end());
    if (planned.size() > table.ids.size()) return false;
    std::vector<uint32_t> order(planned.size());
    std::iota(order.begin(), order.end(), 0);
    std::optional<std::vector<ForecastStep>> steps = table.Forecast(order);
    if (!steps) return false;
    *plan = std::move(*steps);
    return true;
  }

  bool PrintJson(const SizeResult& result, const std::vector<ForecastStep>& plan) const {
    DocumentWriter out(STDOUT_FILENO);
    return WriteResultJson(result, {options_.forecast.empty() ? nullptr : &plan, options_.table},
                           [&](const std::string& piece) { return out.Write(piece); });
  }

  bool PrintTables(const SizeTable& table, const std::vector<ForecastStep>& plan) const {
    const LineSink print = [](const std::string& line) { return WriteLine(STDOUT_FILENO, line); };
    if (!options_.forecast.empty() && !GiveForecastLines(table, plan, print)) return false;
    return !options_.table || GiveTableLines(table, print);
  }

  bool PrintNumbers(const SizeResult& result) {
    uint64_t all = 0;
    const std::vector<ExclusiveSize> sizes = result.table.ExclusiveSizes();
    for (const ExclusiveSize& size : sizes) all += Counted(size);

    if (!WriteLine(STDOUT_FILENO, GenerationLine(result.generation)) || !PrintTotal()) return false;
    if (options_.progress &&
        !(WriteLine(STDOUT_FILENO, ProcessedLine(*printedTotal_)) && PrintExclusive(all)))
      return false;
    for (const ExclusiveSize& size : sizes)
      if (options_.eachSubvolume &&
          !WriteLine(STDOUT_FILENO, SubvolumeLine(size.id, Counted(size))))
        return false;
    return true;
  }

  uint64_t Counted(const ExclusiveSize& size) const {
    return size.dataBytes + (options_.countMetadata ? size.metadataBytes : 0);
  }

  // The reason for a worker that closed its channel without an outcome.
  std::string HowWorkerEnded() const {
    const Clock::time_point deadline = Clock::now() + kWorkerEnd;
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(worker_, &status, WNOHANG)) == 0 && Clock::now() < deadline)
      (void)poll(nullptr, 0, 5);
    if (ended == worker_ && WIFSIGNALED(status))
      return std::string("the worker was ended by a signal (") + strsignal(WTERMSIG(status)) +
             "); see the kernel's log";
    return "the worker ended without a result";
  }

  int Fail(const std::string& reason) {
    KillWorker();
    return SayFailure(reason);
  }

  int OutputFailed() {
    if (errno != EPIPE)
      (void)WriteLine(STDERR_FILENO, ErrorLine(std::string("cannot write: ") + strerror(errno)));
    return Leave();
  }

  int Leave() {
    KillWorker();
    return 1;
  }

  void KillWorker() { (void)kill(worker_, SIGKILL); }

  const Options& options_;
  SizeProgress& progress_;
  UniqueFd channel_;
  const pid_t worker_;
  MessageReader messages_;
  std::string result_;  // the pieces that have come
  std::optional<uint64_t> printedTotal_;
  std::optional<uint64_t> printedExclusive_;
};

// Memory that the worker writes and the front reads; it lasts as long as the process.
SizeProgress* MapProgress() {
  void* memory = mmap(nullptr, sizeof(SizeProgress), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : new (memory) SizeProgress;
}

}  // namespace

int SayFailure(const std::string& reason) {
  (void)WriteLine(STDERR_FILENO, ErrorLine(reason));
  (void)WriteLine(STDOUT_FILENO, UnavailableLine(reason));
  return 1;
}

int RunFront(const Options& options) {
  // A reader that has gone is seen as an error of the write; a worker's end as its status.
  (void)signal(SIGPIPE, SIG_IGN);
  (void)signal(SIGCHLD, SIG_DFL);

  SizeProgress* progress = MapProgress();
  int ends[2];
  if (progress == nullptr || pipe2(ends, O_CLOEXEC) != 0)
    return SayFailure(std::string("cannot start: ") + strerror(errno));
  UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);

  const pid_t front = getpid();
  const pid_t worker = fork();
  if (worker < 0) return SayFailure(std::string("cannot start a process: ") + strerror(errno));
  if (worker == 0) {
    readEnd.Reset();
    RunWorker(options, *progress, std::move(writeEnd), front);
  }
  writeEnd.Reset();
  return Front(options, *progress, std::move(readEnd), worker).Run();
}

}  // namespace ZorvEngine
