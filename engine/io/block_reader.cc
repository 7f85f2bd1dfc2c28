#include "engine/io/block_reader.h"

#include <string.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <utility>

#include "engine/ondisk/checksum.h"

namespace ZorvEngine {
namespace {

// The failure of a block: all its copies on devices that are there were tried, `why` is what was
// wrong with the last.
Status Bad(const BlockPointer& pointer, const std::string& why) {
  return Status::BadBlock("tree block " + std::to_string(pointer.bytenr) + " (level " +
                          std::to_string(pointer.level) + ", generation " +
                          std::to_string(pointer.generation) + ") cannot be used: " + why);
}

// Whether a cached block is the one that `pointer` means.
bool IsMeant(const BlockPointer& pointer, const TreeBlockView& view) {
  if (view.Header().generation.Get() != pointer.generation || view.Level() != pointer.level)
    return false;
  return !pointer.firstKey || (view.Count() > 0 && view.KeyAt(0) == *pointer.firstKey);
}

// A block of its own with the bytes of `view`.
TreeBlockPtr CopyOf(const TreeBlockView& view) {
  auto block = std::make_shared<TreeBlock>();
  const ByteView bytes = view.Bytes();
  block->bytes.assign(bytes.Data(), bytes.Data() + bytes.Size());
  (void)TreeBlockView::Parse(ByteView(block->bytes.data(), block->bytes.size()), &block->view);
  return block;
}

}  // namespace

BlockReader::BlockReader(const DeviceSet& devices, const BlockFormat& format, ReadMeter& meter,
                         const ReadOptions& options)
    : devices_(devices),
      format_(format),
      meter_(meter),
      buffer_(MakeAlignedBuffer(format.nodeSize)),
      pipeline_(options, meter) {}

void BlockReader::ExpectChunkTree(const uint8_t* uuid) {
  chunkTreeUuid_ = std::vector<uint8_t>(uuid, uuid + kUuidSize);
}

Status BlockReader::Read(const BlockPointer& pointer, TreeBlockPtr* out) {
  if (TreeBlockPtr cached = FindCached(pointer)) {
    *out = cached;
    return Status();
  }
  if (buffer_ == nullptr) return Status::Failed("out of memory");
  meter_.Plan(format_.nodeSize);
  std::optional<TreeBlockView> view;
  ENGINE_TRY(ReadCopies(pointer, buffer_.get(), &view));
  ++meter_.counters.blocksVerified;
  *out = CopyOf(*view);
  Keep(*out);
  meter_.Done(format_.nodeSize);
  return Status();
}

Status BlockReader::Sweep(const std::vector<BlockPointer>& pointers, const SweepVisitor& visit,
                          std::vector<BadBlock>* bad) {
  std::mutex mutex;
  const auto first = static_cast<std::ptrdiff_t>(bad->size());
  const Status swept = SweepInto(pointers, visit, [&](size_t index, Status why) {
    const std::lock_guard<std::mutex> lock(mutex);
    bad->push_back({index, std::move(why)});
    return Status();
  });
  std::sort(bad->begin() + first, bad->end(),
            [](const BadBlock& a, const BadBlock& b) { return a.index < b.index; });
  return swept;
}

Status BlockReader::ReadMany(const std::vector<BlockPointer>& pointers, const Visitor& visit) {
  std::mutex mutex;
  const SweepVisitor keepAndVisit = [&](size_t, const TreeBlockView& block) {
    const std::lock_guard<std::mutex> lock(mutex);
    Keep(CopyOf(block));
    return visit(block);
  };
  return SweepInto(pointers, keepAndVisit, [](size_t, Status why) { return why; });
}

// Neighbours on a device need not be neighbours in the file system: a striped chunk deals its
// pieces to several devices, and on each they lie side by side.
Status BlockReader::SweepInto(const std::vector<BlockPointer>& pointers, const SweepVisitor& visit,
                              const BadSink& onBad) {
  meter_.Plan(pointers.size() * uint64_t{format_.nodeSize});
  SweepJob job{pointers, visit, onBad, {}, {}};
  job.wanted.reserve(pointers.size());
  ENGINE_TRY(VisitCached(&job));
  Plan(&job);
  return AnyRotates(job) ? ReadInRounds(&job) : ReadAsPlanned(job, 0, job.reads.size());
}

void BlockReader::Plan(SweepJob* job) const {
  job->reads = PlanReads(&job->wanted, format_.nodeSize, [this](uint64_t devid) {
    return devices_.Find(devid)->source->Rotates() ? pace_.Shape() : kFlashShape;
  });
}

bool BlockReader::AnyRotates(const SweepJob& job) const {
  return std::any_of(job.reads.begin(), job.reads.end(), [this](const PlannedRead& read) {
    return devices_.Find(read.devid)->source->Rotates();
  });
}

// Makes `count` of the planned reads, from `first` on.
Status BlockReader::ReadAsPlanned(const SweepJob& job, size_t first, size_t count) {
  std::vector<ReadRange> ranges;
  ranges.reserve(count);
  for (size_t i = first; i < first + count; ++i) {
    const PlannedRead& read = job.reads[i];
    ranges.push_back({devices_.Find(read.devid)->source.get(), read.offset, read.size});
  }
  return pipeline_.Run(ranges, [&](size_t index, uint8_t* bytes, const Status& done) {
    return TakeRead(job, job.reads[first + index], bytes, done);
  });
}

// Makes all reads, and plans what is left anew when their pace asks for other requests.
Status BlockReader::ReadInRounds(SweepJob* job) {
  for (size_t at = 0; at < job->reads.size();) {
    const size_t count = std::min(pace_.RoundSize(), job->reads.size() - at);
    const uint64_t bytesBefore = meter_.counters.bytesRead;
    const auto begin = std::chrono::steady_clock::now();
    ENGINE_TRY(ReadAsPlanned(*job, at, count));
    const auto time = std::chrono::steady_clock::now() - begin;
    at += count;
    if (!pace_.Note({count, meter_.counters.bytesRead - bytesBefore, time})) continue;

    std::vector<WantedBlock> left;
    for (; at < job->reads.size(); ++at)
      for (size_t i = 0; i < job->reads[at].count; ++i)
        left.push_back(job->wanted[job->reads[at].first + i]);
    job->wanted = std::move(left);
    Plan(job);
    at = 0;
  }
  return Status();
}

// Visits the blocks that the cache has; the others become those that are wanted.
Status BlockReader::VisitCached(SweepJob* job) {
  for (size_t i = 0; i < job->pointers.size(); ++i) {
    if (const TreeBlockPtr cached = FindCached(job->pointers[i])) {
      ENGINE_TRY(job->visit(i, *cached->view));
      meter_.Done(format_.nodeSize);
    } else {
      ENGINE_TRY(WantBlock(i, job));
    }
  }
  return Status();
}

// Wants a block from where its first copy lies that is on a device that is there.
Status BlockReader::WantBlock(size_t index, SweepJob* job) const {
  const BlockPointer& pointer = job->pointers[index];
  const Places places = chunks_.Find(pointer.bytenr, format_.nodeSize);
  for (const Place& place : places) {
    if (devices_.Find(place.devid) == nullptr) continue;
    job->wanted.push_back({place, static_cast<uint32_t>(index), &place != places.begin()});
    return Status();
  }
  Status why = NoCopyIsThere(pointer, places);
  if (why.GetKind() != Status::kBadBlock) return why;
  meter_.Done(format_.nodeSize);
  return job->onBad(index, std::move(why));
}

// Deals with the blocks of one request, whose bytes are at `bytes` if `done` is Ok.
Status BlockReader::TakeRead(const SweepJob& job, const PlannedRead& read, uint8_t* bytes,
                             const Status& done) {
  for (size_t i = 0; i < read.count; ++i) {
    const WantedBlock& block = job.wanted[read.first + i];
    ENGINE_TRY(TakeBlock(job, block, bytes + (block.place.offset - read.offset), done));
  }
  meter_.Done(read.count * uint64_t{format_.nodeSize});
  return Status();
}

// Visits one block; when its bytes are not sound, those of its copies are read in their place.
Status BlockReader::TakeBlock(const SweepJob& job, const WantedBlock& block, uint8_t* bytes,
                              const Status& done) {
  const BlockPointer& pointer = job.pointers[block.index];
  const Device& device = *devices_.Find(block.place.devid);
  std::optional<TreeBlockView> view;
  std::string wrong = done.Ok() ? Verify(pointer, device, bytes, &view) : done.Text();
  if (wrong.empty()) {
    if (block.mirror) ++meter_.counters.mirrorsUsed;
  } else {
    const bool reused = done.Ok() && IsReused(pointer, device, bytes);
    Status why = reused ? Bad(pointer, wrong) : ReadCopies(pointer, bytes, &view);
    if (why.GetKind() == Status::kBadBlock) return job.onBad(block.index, std::move(why));
    ENGINE_TRY(why);
  }
  ++meter_.counters.blocksVerified;
  return job.visit(block.index, *view);
}

// Reads one copy after the other to `bytes` until one verifies.
Status BlockReader::ReadCopies(const BlockPointer& pointer, uint8_t* bytes,
                               std::optional<TreeBlockView>* out) {
  const Places places = chunks_.Find(pointer.bytenr, format_.nodeSize);
  std::vector<BadCopy> bad;
  for (const Place& place : places) {
    const Device* device = devices_.Find(place.devid);
    if (device == nullptr) continue;
    meter_.counters.CountRequest(format_.nodeSize);
    bool unreadable = false;
    const std::string why = TryCopy(pointer, place, bytes, out, &unreadable);
    if (why.empty()) {
      if (&place != places.begin()) ++meter_.counters.mirrorsUsed;
      KeepInMind(bad);
      return Status();
    }
    bad.push_back({pointer, place, why, unreadable});
    if (!unreadable && IsReused(pointer, *device, bytes)) break;
  }
  return bad.empty() ? NoCopyIsThere(pointer, places) : Bad(pointer, bad.back().why);
}

// Reads the copy at `place`, whose device is there; what is wrong with it, empty when it is sound.
std::string BlockReader::TryCopy(const BlockPointer& pointer, const Place& place, uint8_t* bytes,
                                 std::optional<TreeBlockView>* out, bool* unreadable) const {
  const Device& device = *devices_.Find(place.devid);
  const Status read = device.source->ReadAt(place.offset, bytes, format_.nodeSize);
  *unreadable = !read.Ok();
  return read.Ok() ? Verify(pointer, device, bytes, out) : read.Text();
}

void BlockReader::KeepInMind(const std::vector<BadCopy>& bad) {
  if (bad.empty()) return;
  const std::lock_guard<std::mutex> lock(badCopiesMutex_);
  for (const BadCopy& copy : bad)
    if (badCopies_.size() < kMostBadCopies)
      badCopies_.try_emplace({copy.pointer.bytenr, copy.pointer.generation, copy.place}, copy);
}

std::vector<BadCopy> BlockReader::FindBadCopies() {
  std::vector<BadCopy> still;
  for (const auto& [where, copy] : badCopies_)
    if (copy.unreadable || IsStillBad(copy)) still.push_back(copy);
  return still;
}

// Whether a copy does not verify while another of its block does.  In this order: what is written
// to all copies at about the same time would else look like that.
bool BlockReader::IsStillBad(const BadCopy& copy) {
  std::optional<TreeBlockView> view;
  bool unreadable = false;
  const auto isSound = [&](const Place& place) {
    return devices_.Find(place.devid) != nullptr &&
           TryCopy(copy.pointer, place, buffer_.get(), &view, &unreadable).empty();
  };
  if (buffer_ == nullptr || isSound(copy.place)) return false;
  const Places places = chunks_.Find(copy.pointer.bytenr, format_.nodeSize);
  return std::any_of(places.begin(), places.end(), isSound);
}

// Whether a later commit than that of the state has put a block of the same file system there.
bool BlockReader::IsReused(const BlockPointer& pointer, const Device& device,
                           const uint8_t* bytes) const {
  const ByteView raw(bytes, format_.nodeSize);
  const BlockHeader& header = *raw.At<BlockHeader>(0);
  return header.generation.Get() > stateGeneration_ && header.bytenr.Get() == pointer.bytenr &&
         memcmp(header.fsid, device.blockFsid, kUuidSize) == 0 &&
         HasValidChecksum(format_.checksumType, raw);
}

// The failure of a block that lies on no device that is there.
Status BlockReader::NoCopyIsThere(const BlockPointer& pointer, const Places& places) const {
  if (places.Empty()) return Bad(pointer, "no chunk holds it");
  const uint64_t devid = places.begin()->devid;
  return Status::NoDevice(
      "device " + std::to_string(devid) + " " + devices_.WhyMissing(devid) + " and tree block " +
      std::to_string(pointer.bytenr) +
      " lies nowhere else; attach the device or replace it (btrfs replace), then try again");
}

// Sets `out` to the block at `bytes`, which were read from `device`, and is empty; else says what
// is wrong with it.
std::string BlockReader::Verify(const BlockPointer& pointer, const Device& device,
                                const uint8_t* bytes, std::optional<TreeBlockView>* out) const {
  const ByteView raw(bytes, format_.nodeSize);
  if (!HasValidChecksum(format_.checksumType, raw)) return "its checksum is wrong";
  const std::string wrongHeader = CheckHeader(pointer, device, *raw.At<BlockHeader>(0));
  if (!wrongHeader.empty()) return wrongHeader;
  if (const char* wrong = TreeBlockView::Parse(raw, out)) return wrong;
  if (!IsMeant(pointer, **out)) return "its first key is not the one in its parent";
  return "";
}

std::string BlockReader::CheckHeader(const BlockPointer& pointer, const Device& device,
                                     const BlockHeader& header) const {
  if (header.bytenr.Get() != pointer.bytenr) return "it belongs to another place";
  if (memcmp(header.fsid, device.blockFsid, kUuidSize) != 0)
    return "it belongs to another file system";
  if (chunkTreeUuid_ && memcmp(header.chunkTreeUuid, chunkTreeUuid_->data(), kUuidSize) != 0)
    return "it belongs to another chunk tree";
  if (header.generation.Get() != pointer.generation)
    return "its generation is " + std::to_string(header.generation.Get());
  if (header.level.Get() != pointer.level)
    return "its level is " + std::to_string(header.level.Get());
  return "";
}

bool BlockReader::Has(const BlockPointer& pointer) const {
  const auto found = byPlace_.find(pointer.bytenr);
  return found != byPlace_.end() && IsMeant(pointer, *(*found->second)->view);
}

TreeBlockPtr BlockReader::FindCached(const BlockPointer& pointer) {
  const auto found = byPlace_.find(pointer.bytenr);
  if (found == byPlace_.end() || !IsMeant(pointer, *(*found->second)->view)) return nullptr;
  recent_.splice(recent_.begin(), recent_, found->second);
  return recent_.front();
}

void BlockReader::Keep(const TreeBlockPtr& block) {
  const uint64_t bytenr = block->view->Header().bytenr.Get();
  const auto old = byPlace_.find(bytenr);
  if (old != byPlace_.end()) {
    recent_.erase(old->second);
    byPlace_.erase(old);
  }
  recent_.push_front(block);
  byPlace_[bytenr] = recent_.begin();
  if (recent_.size() * format_.nodeSize <= kCacheBytes) return;
  byPlace_.erase(recent_.back()->view->Header().bytenr.Get());
  recent_.pop_back();
}

}  // namespace ZorvEngine
