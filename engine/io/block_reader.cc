#include "engine/io/block_reader.h"

#include <string.h>

#include <algorithm>

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

}  // namespace

BlockReader::BlockReader(const DeviceSet& devices, const BlockFormat& format, ReadMeter& meter)
    : devices_(devices),
      format_(format),
      meter_(meter),
      buffer_(MakeAlignedBuffer(kRequestBytes)) {}

void BlockReader::ExpectChunkTree(const uint8_t* uuid) {
  chunkTreeUuid_ = std::vector<uint8_t>(uuid, uuid + kUuidSize);
}

Status BlockReader::Read(const BlockPointer& pointer, TreeBlockPtr* out) {
  if (TreeBlockPtr cached = FindCached(pointer)) {
    *out = cached;
    return Status();
  }
  meter_.Plan(format_.nodeSize);
  ENGINE_TRY(ReadUncached(pointer, out));
  Keep(*out);
  meter_.Done(format_.nodeSize);
  return Status();
}

Status BlockReader::ReadMany(std::vector<BlockPointer> pointers, const Visitor& visit) {
  return ReadInOrderOfPlaces(pointers, [&](size_t, const TreeBlockPtr& block) {
    Keep(block);
    return visit(*block->view);
  });
}

Status BlockReader::ReadAll(const std::vector<BlockPointer>& pointers,
                            std::vector<TreeBlockPtr>* out) {
  out->assign(pointers.size(), nullptr);
  return ReadInOrderOfPlaces(pointers, [&](size_t index, const TreeBlockPtr& block) {
    (*out)[index] = block;
    return Status();
  });
}

// Neighbours on a device need not be neighbours in the file system: a striped chunk deals its
// pieces to several devices, and on each they lie side by side.
Status BlockReader::ReadInOrderOfPlaces(const std::vector<BlockPointer>& pointers,
                                        const IndexedVisitor& visit) {
  meter_.Plan(pointers.size() * uint64_t{format_.nodeSize});
  std::vector<Wanted> wanted;
  wanted.reserve(pointers.size());
  for (size_t i = 0; i < pointers.size(); ++i) wanted.push_back({FirstPlace(pointers[i]), i});
  std::sort(wanted.begin(), wanted.end(),
            [](const Wanted& a, const Wanted& b) { return a.place < b.place; });

  for (size_t at = 0; at < wanted.size();) {
    const size_t count = RunLength(wanted, at);
    ENGINE_TRY(ReadRun(pointers, &wanted[at], count, visit));
    meter_.Done(count * uint64_t{format_.nodeSize});
    at += count;
  }
  return Status();
}

// Where the first copy lies that is on a device that is there.
Place BlockReader::FirstPlace(const BlockPointer& pointer) const {
  for (const Place& place : chunks_.Find(pointer.bytenr, format_.nodeSize))
    if (devices_.Find(place.devid) != nullptr) return place;
  return kNowhere;
}

// How many blocks from `first` on lie side by side and fit into one request.
size_t BlockReader::RunLength(const std::vector<Wanted>& wanted, size_t first) const {
  const Place start = wanted[first].place;
  if (start == kNowhere) return 1;
  const size_t most = kRequestBytes / format_.nodeSize;
  size_t count = 1;
  while (count < most && first + count < wanted.size() &&
         wanted[first + count].place ==
             Place{start.devid, start.offset + count * uint64_t{format_.nodeSize}})
    ++count;
  return count;
}

// Reads `count` blocks, which lie side by side: those of the cache from there, the others with one
// request when that works, one by one (with all their copies) when it does not.
Status BlockReader::ReadRun(const std::vector<BlockPointer>& pointers, const Wanted* run,
                            size_t count, const IndexedVisitor& visit) {
  std::vector<TreeBlockPtr> blocks(count);
  bool complete = true;
  for (size_t i = 0; i < count; ++i) {
    blocks[i] = FindCached(pointers[run[i].index]);
    complete = complete && blocks[i] != nullptr;
  }

  const Device* device = devices_.Find(run->place.devid);
  const size_t size = count * format_.nodeSize;
  if (!complete && device != nullptr && buffer_ != nullptr &&
      device->source->ReadAt(run->place.offset, buffer_.get(), size).Ok())
    for (size_t i = 0; i < count; ++i)
      if (blocks[i] == nullptr)
        (void)Verify(pointers[run[i].index], *device, buffer_.get() + i * format_.nodeSize,
                     &blocks[i]);

  for (size_t i = 0; i < count; ++i) {
    if (blocks[i] == nullptr) ENGINE_TRY(ReadUncached(pointers[run[i].index], &blocks[i]));
    ENGINE_TRY(visit(run[i].index, blocks[i]));
  }
  return Status();
}

Status BlockReader::ReadUncached(const BlockPointer& pointer, TreeBlockPtr* out) {
  if (buffer_ == nullptr) return Status::Failed("out of memory");
  const Places places = chunks_.Find(pointer.bytenr, format_.nodeSize);
  if (places.Empty()) return Bad(pointer, "no chunk holds it");

  std::string why;
  for (const Place& place : places) {
    const Device* device = devices_.Find(place.devid);
    if (device == nullptr) continue;
    const Status read = device->source->ReadAt(place.offset, buffer_.get(), format_.nodeSize);
    why = read.Ok() ? Verify(pointer, *device, buffer_.get(), out) : read.Text();
    if (why.empty()) return Status();
  }
  return why.empty() ? OnMissingDevice(pointer, places.begin()->devid) : Bad(pointer, why);
}

Status BlockReader::OnMissingDevice(const BlockPointer& pointer, uint64_t devid) const {
  return Status::Failed("device " + std::to_string(devid) + " " + devices_.WhyMissing(devid) +
                        " and tree block " + std::to_string(pointer.bytenr) +
                        " lies nowhere else; attach the device or replace it (btrfs replace), then "
                        "try again");
}

// Sets `out` to a verified copy of the block at `bytes`, which were read from `device`; else says
// what is wrong with it.
std::string BlockReader::Verify(const BlockPointer& pointer, const Device& device,
                                const uint8_t* bytes, TreeBlockPtr* out) const {
  const ByteView raw(bytes, format_.nodeSize);
  if (!HasValidChecksum(format_.checksumType, raw)) return "its checksum is wrong";
  const std::string wrongHeader = CheckHeader(pointer, device, *raw.At<BlockHeader>(0));
  if (!wrongHeader.empty()) return wrongHeader;

  auto block = std::make_shared<TreeBlock>();
  block->bytes.assign(bytes, bytes + format_.nodeSize);
  const ByteView owned(block->bytes.data(), block->bytes.size());
  if (const char* wrong = TreeBlockView::Parse(owned, &block->view)) return wrong;
  if (!IsMeant(pointer, *block->view)) return "its first key is not the one in its parent";
  *out = std::move(block);
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
