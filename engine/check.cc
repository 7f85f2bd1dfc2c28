#include "engine/check.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/io/read_queue.h"
#include "engine/io/superblock.h"
#include "engine/lines.h"
#include "engine/size/state_look.h"
#include "engine/subjects.h"

namespace ZorvEngine {
namespace {

// What has been found, said as it is found.
class Findings {
 public:
  explicit Findings(const LineSink& sink) : sink_(sink) {}

  void Good(const std::string& what) { Say("ok", what); }
  void Note(const std::string& what) { Say("note", what); }
  void Problem(const std::string& what) {
    Say("problem", what);
    ++problems_;
  }

  // Says `good`, or the failure as a problem; whether it was good.
  bool Take(const Status& status, const std::string& good) {
    status.Ok() ? Good(good) : Problem(status.Text());
    return status.Ok();
  }

  // The last line; whether there was no problem.
  bool Verdict() {
    Say("verdict", problems_ == 0   ? "a run would work"
                   : problems_ == 1 ? "a run would fail, because of the problem above"
                                    : "a run would fail, because of the problems above");
    return problems_ == 0;
  }

 private:
  void Say(const char* kind, const std::string& what) { (void)sink_(FindingLine(kind, what)); }

  const LineSink& sink_;
  int problems_ = 0;
};

bool CheckDevices(MountedFilesystem* filesystem, Findings* findings) {
  Superblock superblock;
  if (!findings->Take(filesystem->ReadSuperblock(&superblock), "the superblock can be read"))
    return false;
  const std::vector<uint64_t> missing = filesystem->Devices().Missing();
  if (missing.empty()) findings->Good("every device is there");
  for (const uint64_t devid : missing)
    findings->Note("device " + std::to_string(devid) + " " +
                   filesystem->Devices().WhyMissing(devid) +
                   "; tree blocks are read from other copies, and a run fails at the first one "
                   "that has none");
  return findings->Take(CheckFeatures(superblock), "all features of the file system are known");
}

// What one look at the committed trees has found.
struct TreeFindings {
  uint64_t generation = 0;
  uint64_t bytes = 0;
  std::vector<std::string> missing;  // why a subvolume cannot be asked about
};

Status LookAtTrees(CommittedTrees& trees, const std::vector<uint64_t>& ids, TreeFindings* out) {
  *out = {trees.Generation(), trees.ExtentTreeBytes(), {}};
  for (const uint64_t id : ids) {
    CommittedTrees::Subvolume subvolume;
    const Status found = trees.FindAskedSubvolume(id, &subvolume);
    if (found.GetKind() == Status::kBadBlock) return found;
    if (!found.Ok()) out->missing.push_back(found.Text());
  }
  return Status();
}

void CheckTrees(const std::vector<uint64_t>& ids, MountedFilesystem* filesystem,
                SizeProgress& progress, Findings* findings) {
  TreeFindings found;
  StateLook look([&](CommittedTrees& trees) { return LookAtTrees(trees, ids, &found); });
  const Status looked =
      look.AtNewest(*filesystem, progress, [&](const std::string& text) { findings->Note(text); });
  if (!findings->Take(looked, "the trees of generation " + std::to_string(found.generation) +
                                  " can be read; a run reads about " + std::to_string(found.bytes) +
                                  " bytes"))
    return;
  for (const std::string& why : found.missing) findings->Problem(why);
  const size_t there = ids.size() - found.missing.size();
  if (there > 0) findings->Good(std::to_string(there) + " of the subvolumes asked about are there");
}

void CheckReading(const Options& options, Findings* findings) {
  if (!options.ring)
    findings->Good("reading goes through threads, as --no-ring wants it");
  else if (MakeRingQueue(1) != nullptr)
    findings->Good("reading goes through io_uring");
  else
    findings->Note("io_uring is refused here; reading goes through threads, with the same numbers");
}

}  // namespace

Status RequireRoot() {
  if (geteuid() == 0) return Status();
  return Status::Failed("this needs root, because the device is read directly; try sudo");
}

bool CheckRun(const Options& options, SizeProgress& progress, const LineSink& sink) {
  Findings findings(sink);
  if (!findings.Take(RequireRoot(), "this runs as root")) return findings.Verdict();

  MountedFilesystem filesystem;
  const std::string& directory = options.byId ? options.directory : options.arguments[0];
  if (!findings.Take(filesystem.Open(directory), directory + " is on btrfs"))
    return findings.Verdict();

  Subjects subjects;
  const Status found = subjects.Find(
      options, [&](const std::string& text) { findings.Note(text); }, &filesystem);
  if (!found.Ok()) findings.Problem(found.Text());
  if (CheckDevices(&filesystem, &findings))
    CheckTrees(subjects.Ids(), &filesystem, progress, &findings);
  CheckReading(options, &findings);
  return findings.Verdict();
}

}  // namespace ZorvEngine
