#include "engine/check.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/io/array_memory.h"
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
                   "; tree blocks are read from other copies where there are any");
  return findings->Take(CheckFeatures(superblock), "all features of the file system are known");
}

// What one look at the committed trees has found.
struct TreeFindings {
  uint64_t generation = 0;
  uint64_t bytes = 0;
  std::vector<std::string> missing;  // why a subvolume cannot be asked about
  std::string unsettled;             // why a run waits for a newer state
  std::string lost;                  // why tree blocks cannot be read
  bool movesData = false;
};

// Why tree blocks of some chunk cannot be read: that all their copies lie on missing devices. Empty
// when there is no such chunk.
std::string WhyLost(const ChunkMap& chunks, const DeviceSet& devices) {
  std::string why;
  chunks.EachMetadataCopies([&](uint64_t logical, const std::vector<uint64_t>& copies) {
    const auto isThere = [&](uint64_t devid) { return devices.Find(devid) != nullptr; };
    if (!why.empty() || std::any_of(copies.begin(), copies.end(), isThere)) return;
    why = "device " + std::to_string(copies[0]) + " " + devices.WhyMissing(copies[0]) +
          ", and tree blocks of the chunk at " + std::to_string(logical) +
          " have no copy elsewhere (nothing is rebuilt from parity); attach the device or replace "
          "it (btrfs replace)";
  });
  return why;
}

Status LookAtTrees(CommittedTrees& trees, const DeviceSet& devices,
                   const std::vector<uint64_t>& ids, TreeFindings* out) {
  *out = {trees.Generation(),
          trees.ExtentTreeBytes(),
          {},
          trees.CheckSettled().Text(),
          WhyLost(trees.Reader().Chunks(), devices)};
  ENGINE_TRY(trees.FindMovingData(&out->movesData));
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
  StateLook look([&](CommittedTrees& trees) {
    return LookAtTrees(trees, filesystem->Devices(), ids, &found);
  });
  const Status looked =
      look.AtNewest(*filesystem, progress, [&](const std::string& text) { findings->Note(text); });
  if (!findings->Take(looked, "the trees of generation " + std::to_string(found.generation) +
                                  " can be read; a scan reads at least " +
                                  std::to_string(found.bytes) + " bytes"))
    return;
  if (!found.lost.empty()) findings->Problem(found.lost);
  if (!found.unsettled.empty())
    findings->Note("a run would wait for a later state, and fail when none comes in time: " +
                   found.unsettled);
  if (found.movesData)
    findings->Note(
        "a balance, or a device that shrinks or goes, is moving data: a run scans, and waits while "
        "it gives subvolumes the new places; --method walk cannot follow it");
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

// Files for arrays are made when these outgrow their memory, long after a run has begun.
void CheckTemporaryFiles(Findings* findings) {
  constexpr size_t kTrial = 1 << 20;
  ArrayMemory files(/*mostBytes=*/0);
  try {
    files.Free(files.Allocate(kTrial), kTrial);
    findings->Good("temporary files can be made for arrays beyond --memory");
  } catch (const NoArrayMemory& why) {
    findings->Note(std::string("a run works while its arrays fit into --memory; beyond that ") +
                   why.what());
  }
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
  CheckTemporaryFiles(&findings);
  return findings.Verdict();
}

}  // namespace ZorvEngine
