#include "engine/size/newest_state_run.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>

#include "engine/io/superblock.h"
#include "engine/size/patience.h"

namespace ZorvEngine {
namespace {

using Clock = std::chrono::steady_clock;

// Each look opens the devices anew, which may be busy with what is waited for.
constexpr auto kBetweenLooks = std::chrono::milliseconds(100);

constexpr char kNothingCommitted[] =
    " (nothing was committed meanwhile: if it is mounted read-only, mount it writable once)";

BlockFormat FormatOf(const Superblock& superblock) {
  BlockFormat format;
  format.nodeSize = superblock.nodeSize.Get();
  format.checksumType = superblock.checksumType.Get();
  return format;
}

Status Attempt(BlockReader& reader, const Superblock& superblock, ExclusiveSizeMethod& method,
               const SizeRequest& request, SizeProgress& progress, SizeResult* out) {
  CommittedTrees trees(reader);
  {
    const PhaseTimer timer(progress.stats, "roots");
    ENGINE_TRY(trees.Load(superblock));
  }
  out->generation = trees.Generation();
  ENGINE_TRY(method.Run(trees, request, progress, &out->table));
  return trees.FindDeletion(&out->deletionGoesOn);
}

Status Commit(StateSource& source, SizeProgress& progress, const NoteSink& note,
              Superblock* superblock) {
  const PhaseTimer timer(progress.stats, "commit");
  std::string why;
  ENGINE_TRY(source.CommitAndReadSuperblock(superblock, &why));
  if (!why.empty()) note(why);
  return Status();
}

// Says what was not as it should be and did no harm, because there is another copy of it.
void SayDamage(const StateSource& source, BlockReader& reader, const NoteSink& note) {
  for (const std::string& damage : source.FindDamage()) note(damage);
  const std::vector<BadCopy> bad = reader.FindBadCopies();
  if (bad.empty()) return;
  const BadCopy& first = bad[0];
  const bool all = bad.size() < BlockReader::kMostBadCopies;
  const std::string others = bad.size() == 1
                                 ? ""
                                 : ", and " + std::string(all ? "" : "at least ") +
                                       std::to_string(bad.size() - 1) + " further copies of blocks";
  note("the copy of tree block " + std::to_string(first.pointer.bytenr) + " on device " +
       std::to_string(first.place.devid) + " at " + std::to_string(first.place.offset) +
       " cannot be used (" + first.why + ")" + others + "; another copy was read; run btrfs scrub");
}

// Waits for a newer superblock than `superblock`, which becomes it.  The failure is `why`, when
// none has come until `deadline`.
Status WaitForNewer(StateSource& source, Clock::time_point deadline, const Status& why,
                    Superblock* superblock) {
  const uint64_t before = superblock->generation.Get();
  const bool late = Clock::now() >= deadline;
  ENGINE_TRY(source.ReadSuperblock(superblock));
  while (superblock->generation.Get() == before) {
    if (Clock::now() >= deadline)
      return Status::Failed(why.Text() + (late ? "" : kNothingCommitted));
    std::this_thread::sleep_until(std::min(deadline, Clock::now() + kBetweenLooks));
    ENGINE_TRY(source.ReadSuperblock(superblock));
  }
  return CheckFeatures(*superblock);
}

}  // namespace

Status RunOnNewestState(StateSource& source, ExclusiveSizeMethod& method,
                        const SizeRequest& request, SizeProgress& progress, const NoteSink& note,
                        SizeResult* out) {
  Superblock superblock;
  ENGINE_TRY(Commit(source, progress, note, &superblock));
  ENGINE_TRY(CheckFeatures(superblock));

  BlockReader reader(source.Devices(), FormatOf(superblock), progress.meter, request.reading);
  const ReadCounters& counters = progress.meter.counters;
  const Clock::time_point begin = Clock::now();
  Patience patience;
  std::string bad;
  int sameBad = 0;
  std::optional<Clock::time_point> unsettled;  // since when
  for (int attempt = 1;; ++attempt) {
    SizeResult result;
    const uint64_t readBefore = counters.bytesRead;
    const Status done = Attempt(reader, superblock, method, request, progress, &result);
    if (done.Ok()) {
      if (result.deletionGoesOn)
        note(
            "a subvolume is being deleted; what it shares is held by it until that has ended "
            "(btrfs subvolume sync)");
      SayDamage(source, reader, note);
      *out = std::move(result);
      return Status();
    }
    if (done.GetKind() == Status::kUnsettled) {
      if (!unsettled) unsettled = Clock::now();
      ENGINE_TRY(WaitForNewer(source, *unsettled + request.mostSettling, done, &superblock));
      progress.meter.Abandon();
      progress.exclusiveBytes = 0;
      continue;
    }
    if (done.GetKind() != Status::kBadBlock && done.GetKind() != Status::kNoDevice) return done;

    const uint64_t before = superblock.generation.Get();
    ENGINE_TRY(source.ReadSuperblock(&superblock));
    // One that was added while the state was looked for.
    if (done.GetKind() == Status::kNoDevice && !source.DevicesChanged()) return done;
    sameBad = done.Text() == bad ? sameBad + 1 : 1;
    bad = done.Text();
    const bool isStill = superblock.generation.Get() == before || sameBad == kMostOfOneBlock;
    if (isStill && !source.DevicesChanged()) return Status::Failed(bad + "; run btrfs scrub");
    if (!patience.GoesOn(counters.bytesRead - readBefore, Clock::now() - begin))
      return Status::Failed("the file system changes faster than it can be read (" +
                            std::to_string(attempt) + " attempts); try again when it is quieter");
    ENGINE_TRY(CheckFeatures(superblock));
    progress.meter.Abandon();
    progress.exclusiveBytes = 0;
  }
}

}  // namespace ZorvEngine
