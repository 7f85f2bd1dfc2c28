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
#include "engine/file_lines.h"
#include "engine/holder_lines.h"
#include "engine/line_backlog.h"
#include "engine/lines.h"
#include "engine/stats_lines.h"
#include "engine/table_json.h"
#include "engine/table_lines.h"
#include "engine/turn.h"
#include "engine/worker.h"

namespace ZorvEngine {
namespace {

using Clock = std::chrono::steady_clock;

// Progress is due every 200 ms at the latest; a little earlier leaves room for a busy machine.
constexpr auto kProgressInterval = std::chrono::milliseconds(150);

// How long a worker that has closed its channel may take to be gone.
constexpr auto kWorkerEnd = std::chrono::milliseconds(1000);

// How long standard error may have no room at the end, before what waits for it is given up: less
// than the time within which a reader that goes ends the engine.
constexpr auto kLastRoom = std::chrono::milliseconds(150);

// What a wait has ended with.
struct Woken {
  bool channel = false;     // the worker has said something, or has gone
  bool readerGone = false;  // of standard output
};

void GiveFailure(const std::string& reason, LineBacklog& errors) {
  errors.Add(ErrorLine(reason));
  (void)WriteLine(STDOUT_FILENO, UnavailableLine(reason));
}

class Front {
 public:
  Front(const Options& options, SizeProgress& progress, UniqueFd channel, UniqueFd go, pid_t worker)
      : options_(options),
        progress_(progress),
        channel_(std::move(channel)),
        go_(std::move(go)),
        worker_(worker) {}

  int Run() {
    const int status = RunCaught();
    errors_.Finish(kLastRoom);
    return status;
  }

 private:
  // RunOrThrow with memory that has run out, anywhere in it, as a failure.
  int RunCaught() {
    try {
      return RunOrThrow();
    } catch (const std::bad_alloc&) {
      errors_.Drop();  // room to say it
      messages_ = MessageReader();
      std::string().swap(result_);
      return Fail("out of memory");
    }
  }

  int RunOrThrow() {
    Clock::time_point tick = Clock::now() + kProgressInterval;
    for (;;) {
      const Woken woken = WaitUntil(waits_ ? std::min(tick, Clock::now() + turn_.Nap()) : tick);
      if (woken.readerGone) return Leave();
      errors_.WriteWhatFits();
      if (waits_ && turn_.HasCome()) LetWorkerRead();
      if (Clock::now() >= tick) {
        tick = Clock::now() + kProgressInterval;
        if (!SayWhoIsWaitedFor()) return OutputFailed();
        if (options_.progress && !PrintProgress()) return OutputFailed();
        if (StandsStill()) turn_.Leave();
      }
      if (!woken.channel) continue;
      const bool open = messages_.Receive(channel_.Get());
      while (std::optional<Message> message = messages_.Next()) {
        if (std::optional<int> ended = Take(*message)) return *ended;
      }
      if (!open) return Fail(HowWorkerEnded());
    }
  }

  // Does what a message says; the exit status when it is the last one.
  std::optional<int> Take(const Message& message) {
    switch (message.kind) {
      case Message::kNote:
        errors_.AddUnlessFull(NoteLine(message.payload));
        return std::nullopt;
      case Message::kTurn:
        JoinRow(message.payload);
        return std::nullopt;
      case Message::kResultPart:
        result_ += message.payload;
        return std::nullopt;
      case Message::kResult:
        turn_.Leave();  // printing may take its time
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

  // Order is worth less than a number: without a row the worker reads at once.
  void JoinRow(const std::string& name) {
    const Status joined = turn_.Join(name);
    if (!joined.Ok()) progress_.stats.SayNoTurn(joined.Text());
    waits_ = !turn_.HasCome();
    if (!waits_) LetWorkerRead();
  }

  void LetWorkerRead() {
    waits_ = false;
    reading_ = StandStill(Clock::now());
    go_.Reset();  // the end of the pipe is the word: a write could fail, and nobody would go on
  }

  // Says how many runs are waited for, when that is news.  False: standard output failed.
  bool SayWhoIsWaitedFor() {
    const size_t ahead = waits_ ? turn_.Ahead() : 0;
    if (ahead == 0 || ahead == saidAhead_) return true;
    const std::string line = WaitingLine(ahead);
    if (!saidAhead_) errors_.AddUnlessFull(NoteLine(line.substr(0, line.size() - 1)));
    saidAhead_ = ahead;
    return !options_.progress || WriteLine(STDOUT_FILENO, line);
  }

  // Whether the worker has read nothing for so long that others need not wait for it.
  bool StandsStill() {
    const uint64_t read = progress_.meter.counters.bytesRead;
    const auto still = reading_.Take(read, Clock::now());
    return !waits_ && still > kMostStandStill;
  }

  // Waits for the worker's words, the tick, room for what waits for it, or the end of the reader
  // (which wakes a poll for nothing as an error or a hang-up).
  Woken WaitUntil(Clock::time_point tick) const {
    pollfd watched[] = {{channel_.Get(), POLLIN, 0},
                        {STDOUT_FILENO, 0, 0},
                        {errors_.Waits() ? STDERR_FILENO : -1, POLLOUT, 0}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(tick - Clock::now()).count();
    if (poll(watched, 3, static_cast<int>(std::max<long>(left, 0))) <= 0) return {};
    return {watched[0].revents != 0, watched[1].revents != 0};
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
    SizeResult result;
    if (!DecodeResult(result_, &result)) return Fail("internal error: an unreadable result");
    result_.clear();
    std::vector<ForecastStep> plan;
    if (!options_.forecast.empty() && !PlanIsKnown(result.table, &plan))
      return Fail("internal error: a result without the plan");
    const bool printed = options_.json ? PrintJson(result, plan)
                                       : PrintNumbers(result) && PrintTables(result.table, plan) &&
                                             PrintFiles(result);
    if (!printed) return OutputFailed();
    if (options_.stats)
      for (const std::string& line : StatsLines(progress_)) errors_.Add(line);
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
    return WriteResultJson(result,
                           {options_.forecast.empty() ? nullptr : &plan, options_.table,
                            options_.files.most > 0, !options_.holders.empty()},
                           [&](const std::string& piece) { return out.Write(piece); });
  }

  bool PrintTables(const SizeTable& table, const std::vector<ForecastStep>& plan) const {
    const LineSink print = [](const std::string& line) { return WriteLine(STDOUT_FILENO, line); };
    if (!options_.forecast.empty() && !GiveForecastLines(table, plan, print)) return false;
    return !options_.table || GiveTableLines(table, print);
  }

  bool PrintFiles(const SizeResult& result) const {
    const LineSink print = [](const std::string& line) { return WriteLine(STDOUT_FILENO, line); };
    if (options_.files.most > 0)
      return GiveFileLines(result.files, result.table.Exclusive(0).metadata, print);
    return options_.holders.empty() || GiveHolderLines(result.holders, result.table.ids, print);
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
  std::string HowWorkerEnded() {
    const Clock::time_point deadline = Clock::now() + kWorkerEnd;
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(worker_, &status, WNOHANG)) == 0 && Clock::now() < deadline)
      (void)poll(nullptr, 0, 5);
    if (ended == 0) return kNoResult;
    worker_ = kNobody;
    if (ended > 0 && WIFSIGNALED(status))
      return std::string("the worker was ended by a signal (") + strsignal(WTERMSIG(status)) +
             "); see the kernel's log";
    return kNoResult;
  }

  int Fail(const std::string& reason) {
    KillWorker();
    GiveFailure(reason, errors_);
    return 1;
  }

  int OutputFailed() {
    if (errno == EPIPE) return Leave();
    const std::string reason = std::string("cannot write: ") + strerror(errno);
    errors_.Add(ErrorLine(reason));
    // There may be room for a shorter line, or again: a reader must not take a part for the whole.
    if (!options_.json) (void)WriteLine(STDOUT_FILENO, UnavailableLine(reason));
    KillWorker();
    return 1;
  }

  // The reader has gone: nobody is waited for.
  int Leave() {
    errors_.Drop();
    KillWorker();
    return 1;
  }

  void KillWorker() {
    if (worker_ != kNobody) (void)kill(worker_, SIGKILL);
  }

  static constexpr pid_t kNobody = 0;
  static constexpr char kNoResult[] = "the worker ended without a result";

  const Options& options_;
  SizeProgress& progress_;
  UniqueFd channel_;
  UniqueFd go_;
  pid_t worker_;  // kNobody once its end has been taken note of: its number may be another's then
  LineBacklog errors_{STDERR_FILENO};
  MessageReader messages_;
  std::string result_;  // the pieces that have come
  Turn turn_;
  bool waits_ = false;  // the worker, for its turn
  std::optional<size_t> saidAhead_;
  StandStill reading_{Clock::now()};
  std::optional<uint64_t> printedTotal_;
  std::optional<uint64_t> printedExclusive_;
};

struct Pipe {
  UniqueFd read;
  UniqueFd write;

  // False: errno says why.
  bool Make() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    read.Reset(ends[0]);
    write.Reset(ends[1]);
    return true;
  }
};

// Memory that the worker writes and the front reads; it lasts as long as the process.
SizeProgress* MapProgress() {
  void* memory = mmap(nullptr, sizeof(SizeProgress), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : new (memory) SizeProgress;
}

}  // namespace

int SayFailure(const std::string& reason) {
  LineBacklog errors(STDERR_FILENO);
  GiveFailure(reason, errors);
  errors.Finish(kLastRoom);
  return 1;
}

int RunFront(const Options& options) {
  (void)signal(SIGCHLD, SIG_DFL);  // the worker's end is seen as its status

  SizeProgress* progress = MapProgress();
  Pipe channel, go;
  if (progress == nullptr || !channel.Make() || !go.Make())
    return SayFailure(std::string("cannot start: ") + strerror(errno));

  const pid_t front = getpid();
  const pid_t worker = fork();
  if (worker < 0) return SayFailure(std::string("cannot start a process: ") + strerror(errno));
  if (worker == 0) {
    channel.read.Reset();
    go.write.Reset();
    RunWorker(options, *progress, {std::move(channel.write), std::move(go.read)}, front);
  }
  channel.write.Reset();
  go.read.Reset();
  return Front(options, *progress, std::move(channel.read), std::move(go.write), worker).Run();
}

}  // namespace ZorvEngine
