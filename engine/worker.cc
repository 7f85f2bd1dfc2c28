#include "engine/worker.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <exception>
#include <map>
#include <string>
#include <unordered_set>

#include "engine/channel.h"
#include "engine/io/io_priority.h"
#include "engine/io/mounted_filesystem.h"
#include "engine/size/auto_method.h"
#include "engine/size/cross_check.h"
#include "engine/size/extent_tree_scan.h"
#include "engine/size/newest_state_run.h"
#include "engine/size/top_down_walk.h"

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

// A path that does not open and looks like an ID was probably meant as one.
Status WithHint(const Status& status, const std::string& argument) {
  uint64_t id = 0;
  if (status.Ok() || !ParseSubvolumeId(argument, &id).Ok()) return status;
  return Status::Failed(status.Text() + "; to give subvolume IDs, add -r DIR");
}

// The numbers of the subvolumes whose roots are at `paths`; `filesystem` becomes theirs.
Status IdsOfPaths(const std::vector<std::string>& paths, MountedFilesystem* filesystem,
                  std::vector<uint64_t>* ids) {
  ENGINE_TRY(WithHint(filesystem->Open(paths[0]), paths[0]));
  for (const std::string& path : paths) {
    MountedFilesystem here;
    ENGINE_TRY(WithHint(here.Open(path), path));
    if (!here.SameAs(*filesystem))
      return Status::Failed(path + " is on another file system than " + paths[0] +
                            "; ask for them one after the other");
    uint64_t id = 0;
    ENGINE_TRY(here.SubvolumeHere(&id));
    ids->push_back(id);
  }
  return Status();
}

// The plan of --forecast comes first: what comes free in the asked order is always known.
Status IdsAsGiven(const Options& options, MountedFilesystem* filesystem,
                  std::vector<uint64_t>* ids) {
  *ids = options.forecast;
  for (const std::string& text : options.arguments) {
    uint64_t id = 0;
    ENGINE_TRY(ParseSubvolumeId(text, &id));
    ids->push_back(id);
  }
  return filesystem->Open(options.directory);
}

// Leaves each number at its first place.
std::vector<uint64_t> OnceEach(const std::vector<uint64_t>& ids, const NoteSink& note) {
  std::vector<uint64_t> unique;
  std::unordered_set<uint64_t> seen;
  for (const uint64_t id : ids) {
    if (seen.insert(id).second)
      unique.push_back(id);
    else
      note("subvolume " + std::to_string(id) + " is given more than once; it counts once");
  }
  return unique;
}

Status Work(const Options& options, SizeProgress& progress, const NoteSink& note,
            SizeResult* result) {
  if (geteuid() != 0)
    return Status::Failed("this needs root, because the device is read directly; try sudo");
  MountedFilesystem filesystem;
  std::vector<uint64_t> ids;
  ENGINE_TRY(options.byId ? IdsAsGiven(options, &filesystem, &ids)
                          : IdsOfPaths(options.arguments, &filesystem, &ids));
  const SizeRequest request{OnceEach(ids, note), options.countMetadata,
                            options.table ? options.tableBytes : 0, options.arrayBytes};
  ExtentTreeScan scan;
  TopDownWalk walk;
  AutoMethod either(scan);
  CrossCheck both(scan, walk);
  const std::map<Method, ExclusiveSizeMethod*> methods = {
      {Method::kAuto, &either}, {Method::kScan, &scan}, {Method::kWalk, &walk}};
  ExclusiveSizeMethod& method = options.verify ? both : *methods.at(options.method);
  return RunOnNewestState(filesystem, method, request, progress, note, result);
}

// Work with every exception turned into a failure: memory can run out anywhere.
Status WorkCaught(const Options& options, SizeProgress& progress, const NoteSink& note,
                  SizeResult* result) {
  try {
    return Work(options, progress, note, result);
  } catch (const std::bad_alloc&) {
    return Status::Failed("out of memory");
  } catch (const std::exception& error) {
    return Status::Failed(std::string("internal error: ") + error.what());
  }
}

}  // namespace

void RunWorker(const Options& options, SizeProgress& progress, UniqueFd channel, pid_t front) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != front) _exit(1);  // the front had gone before the line above
  LeaveStandardStreams();
  ReadWhenIdle();

  const NoteSink note = [&](const std::string& text) {
    (void)SendMessage(channel.Get(), {Message::kNote, text});
  };
  SizeResult result;
  const Status done = WorkCaught(options, progress, note, &result);
  const bool sent = done.Ok() ? SendResult(channel.Get(), result)
                              : SendMessage(channel.Get(), {Message::kFailure, done.Text()});
  _exit(sent && done.Ok() ? 0 : 1);
}

}  // namespace ZorvEngine
