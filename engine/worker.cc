#include "engine/worker.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <string>
#include <system_error>

#include "engine/channel.h"
#include "engine/check.h"
#include "engine/io/io_priority.h"
#include "engine/io/mounted_filesystem.h"
#include "engine/lines.h"
#include "engine/size/auto_method.h"
#include "engine/size/cross_check.h"
#include "engine/size/exclusive_files.h"
#include "engine/size/extent_tree_scan.h"
#include "engine/size/newest_state_run.h"
#include "engine/size/path_holders.h"
#include "engine/size/state_look.h"
#include "engine/size/top_down_walk.h"
#include "engine/subjects.h"

namespace ZorvEngine {
namespace {

void LeaveStandardStreams() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (null >= 0)
      (void)dup2(null, fd);
    else
      (void)close(fd);
  }
}

NoteSink NotesTo(const UniqueFd& channel) {
  return [&channel](const std::string& text) {
    (void)SendMessage(channel.Get(), {Message::kNote, text});
  };
}

const char* MethodName(Method method) {
  switch (method) {
    case Method::kAuto:
      return "auto";
    case Method::kScan:
      return "scan";
    case Method::kWalk:
      break;
  }
  return "walk";
}

ReadOptions ReadingOf(const Options& options) {
  ReadOptions reading;
  reading.allowRing = options.ring;
  reading.visitThreads = options.threads;
  return reading;
}

uint64_t PeakBytes() {
  rusage usage;
  return getrusage(RUSAGE_SELF, &usage) == 0 ? static_cast<uint64_t>(usage.ru_maxrss) << 10 : 0;
}

// The ways of counting, with all that they keep.
struct Methods {
  ExtentTreeScan scan;
  TopDownWalk walk;
  AutoMethod either{scan};
  CrossCheck both{scan, walk};

  ExclusiveSizeMethod& ChosenBy(const Options& options) {
    if (options.verify) {
      walk.ComeAfterScan();
      return both;
    }
    switch (options.method) {
      case Method::kAuto:
        return either;
      case Method::kScan:
        return scan;
      case Method::kWalk:
        break;
    }
    return walk;
  }
};

Status Count(const Options& options, const Subjects& subjects, MountedFilesystem& filesystem,
             Methods& methods, SizeProgress& progress, const NoteSink& note, SizeResult* result) {
  SizeRequest request;
  request.ids = subjects.Ids();
  request.countMetadata = options.countMetadata;
  const bool needsSets = options.table || !options.holders.empty();
  request.countSeveral = needsSets || !options.forecast.empty();
  request.mostSetBytes = needsSets ? options.tableBytes : 0;
  request.mostArrayBytes = options.arrayBytes;
  request.reading = ReadingOf(options);
  progress.stats.Choose(options.verify ? "scan and walk" : MethodName(options.method), "");
  ExclusiveSizeMethod& count = methods.ChosenBy(options);
  if (options.files.most > 0) {
    ExclusiveFiles files(count, options.files);
    ENGINE_TRY(RunOnNewestState(filesystem, files, request, progress, note, result));
    result->files = files.Report();
    return Status();
  }
  if (!options.holders.empty()) {
    PathHolders holders(count, options.holders);
    ENGINE_TRY(RunOnNewestState(filesystem, holders, request, progress, note, result));
    result->holders = holders.Report();
    return Status();
  }
  return RunOnNewestState(filesystem, count, request, progress, note, result);
}

// Waits until the front says that this run may read, by closing its end.
void WaitForTurn(const MountedFilesystem& filesystem, const FrontLink& link,
                 SizeProgress& progress) {
  const PhaseTimer timer(progress.stats, "turn");
  char go = 0;
  if (!SendMessage(link.channel.Get(), {Message::kTurn, filesystem.Name()})) return;
  while (read(link.go.Get(), &go, sizeof go) < 0 && errno == EINTR) continue;
}

// Counts; on return nothing of the file system is open any more.
Status FindResult(const Options& options, Methods& methods, SizeProgress& progress,
                  const FrontLink& link, SizeResult* result) {
  const NoteSink note = NotesTo(link.channel);
  MountedFilesystem filesystem;
  Subjects subjects;
  {
    const PhaseTimer timer(progress.stats, "arguments");
    ENGINE_TRY(subjects.Find(options, note, &filesystem));
  }
  WaitForTurn(filesystem, link, progress);
  const Status counted = Count(options, subjects, filesystem, methods, progress, note, result);
  return counted.Ok() ? counted : subjects.Explain(filesystem, counted);
}

// Whoever has read the result may unmount the file system at once.
Status FindSizes(const Options& options, SizeProgress& progress, const FrontLink& link) {
  ENGINE_TRY(RequireRoot());
  SizeResult result;
  // Not freed: the end of the process, which follows, gives all memory back at once.
  Methods& methods = *std::make_unique<Methods>().release();
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
  ENGINE_TRY(FindResult(options, methods, progress, link, &result));
  const std::vector<SetRow>& rows = result.table.rows;
  progress.stats.sets =
      static_cast<uint64_t>(std::count_if(rows.begin(), rows.end(), SizeTable::IsWorthSaying));
  progress.stats.peakBytes = PeakBytes();
  (void)SendResult(link.channel.Get(), result);
  return Status();
}

Status Estimate(const Options& options, SizeProgress& progress, const UniqueFd& channel) {
  ENGINE_TRY(RequireRoot());
  uint64_t bytes = 0;
  StateLook look([&](CommittedTrees& trees) {
    bytes = trees.ExtentTreeBytes();
    return Status();
  });
  {
    MountedFilesystem filesystem;
    Subjects subjects;
    ENGINE_TRY(subjects.Find(options, NotesTo(channel), &filesystem));
    ENGINE_TRY(look.AtNewest(filesystem, progress, NotesTo(channel)));
  }
  (void)SendMessage(channel.Get(), {Message::kLine, TotalLine(bytes)});
  (void)SendMessage(channel.Get(), {Message::kYes, ""});
  return Status();
}

Status Check(const Options& options, SizeProgress& progress, const UniqueFd& channel) {
  const bool works = CheckRun(options, progress, [&](const std::string& line) {
    return SendMessage(channel.Get(), {Message::kLine, line});
  });
  (void)SendMessage(channel.Get(), {works ? Message::kYes : Message::kNo, ""});
  return Status();
}

// Answers the question, the answer going to the front.
Status Work(const Options& options, SizeProgress& progress, const FrontLink& link) {
  switch (options.question) {
    case Question::kEstimate:
      return Estimate(options, progress, link.channel);
    case Question::kCheck:
      return Check(options, progress, link.channel);
    case Question::kSizes:
      break;
  }
  return FindSizes(options, progress, link);
}

// Work with every exception turned into a failure: memory can run out anywhere.
Status WorkCaught(const Options& options, SizeProgress& progress, const FrontLink& link) {
  try {
    return Work(options, progress, link);
  } catch (const std::bad_alloc&) {
    return Status::Failed("out of memory");
  } catch (const std::system_error& error) {
    return Status::Failed(std::string("the system gives no further thread (") + error.what() +
                          "); allow more processes or more memory (ulimit -u, ulimit -v)");
  } catch (const std::exception& error) {
    return Status::Failed(std::string("internal error: ") + error.what());
  }
}

}  // namespace

void RunWorker(const Options& options, SizeProgress& progress, FrontLink link, pid_t front) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != front) _exit(1);  // the front had gone before the line above
  LeaveStandardStreams();
  ReadWhenIdle();

  const Status done = WorkCaught(options, progress, link);
  if (!done.Ok()) (void)SendMessage(link.channel.Get(), {Message::kFailure, done.Text()});
  _exit(done.Ok() ? 0 : 1);
}

}  // namespace ZorvEngine
