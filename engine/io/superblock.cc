#include "engine/io/superblock.h"

#include <string.h>
#include <time.h>

#include <functional>
#include <string>

#include "engine/ondisk/checksum.h"

namespace ZorvEngine {
namespace {

// Bits of the incompatible features, as in <linux/btrfs.h> and fs/btrfs of Linux 6.18.
constexpr uint64_t kMetadataUuidFeature = 1ULL << 10;
constexpr uint64_t kZonedFeature = 1ULL << 12;
constexpr uint64_t kExtentTreeV2Feature = 1ULL << 13;

// Bits 0 to 11: back references, default subvolume, mixed groups, lzo, zstd, big metadata, extended
// inode references, raid56, skinny metadata, no holes, metadata uuid, raid1c34.  None of them
// changes how trees are read, but for those that are looked at where they matter.
// Bit 14, the raid stripe tree, concerns where data lies; bit 16, simple quotas, adds an inline
// item that is no reference.
constexpr uint64_t kReadableFeatures = 0xFFFULL | 1ULL << 14 | 1ULL << 16;

constexpr int kAttempts = 5;
constexpr timespec kBetweenAttempts = {0, 10'000'000};

constexpr uint32_t kSmallestBlock = 4096;
constexpr uint32_t kLargestBlock = 65536;

bool IsBlockSize(uint32_t size) {
  return size >= kSmallestBlock && size <= kLargestBlock && (size & (size - 1)) == 0;
}

// What one look at all copies has found.
struct Search {
  bool found = false;
  bool unsound = false;  // bytes that may be a superblock in the middle of being written
  bool foreign = false;  // a sound superblock of another device
  int unsupportedChecksum = -1;
  std::string readFailure;
};

// Looks at the copy at `offset`; keeps it in `out` when it is the newest so far.
void Consider(ByteSource& source, uint64_t offset, const uint8_t* deviceUuid, uint8_t* buffer,
              Search* search, Superblock* out) {
  if (source.Size() < offset + kSuperblockSize) return;
  const Status read = source.ReadAt(offset, buffer, kSuperblockSize);
  if (!read.Ok()) {
    search->readFailure = read.Text();
    return;
  }

  const ByteView bytes(buffer, kSuperblockSize);
  const Superblock* copy = bytes.At<Superblock>(0);
  if (copy->magic.Get() != kSuperblockMagic || copy->bytenr.Get() != offset) {
    search->unsound = true;
    return;
  }
  if (!IsChecksumSupported(copy->checksumType.Get())) {
    search->unsupportedChecksum = copy->checksumType.Get();
    return;
  }
  if (!HasValidChecksum(copy->checksumType.Get(), bytes)) {
    search->unsound = true;
    return;
  }
  if (memcmp(copy->device.uuid, deviceUuid, kUuidSize) != 0) {
    search->foreign = true;
    return;
  }
  if (search->found && copy->generation.Get() <= out->generation.Get()) return;
  search->found = true;
  *out = *copy;
}

Status Unreadable(const Search& search) {
  if (search.unsupportedChecksum >= 0)
    return Status::Failed(
        "the checksum type " +
        std::string(ChecksumName(static_cast<uint16_t>(search.unsupportedChecksum))) +
        " cannot be verified by this engine");
  if (search.foreign)
    return Status::Failed("the device belongs to another file system than the one mounted");
  if (!search.readFailure.empty()) return Status::Failed(search.readFailure);
  return Status::Failed("no valid btrfs superblock on the device");
}

// Calls `look` until it has found something, or has not and seen nothing that was unsound: what the
// device itself refuses is not asked for again, since a failing disk takes long over each refusal.
Search LookPatiently(const std::function<void(Search*)>& look) {
  Search search;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (attempt > 0) (void)nanosleep(&kBetweenAttempts, nullptr);
    search = Search();
    look(&search);
    if (search.found || !search.unsound) break;
  }
  return search;
}

}  // namespace

Status ReadNewestSuperblock(ByteSource& source, const uint8_t* deviceUuid, Superblock* out) {
  const AlignedBuffer buffer = MakeAlignedBuffer(kSuperblockSize);
  if (buffer == nullptr) return Status::Failed("out of memory");

  Superblock newest;
  const Search search = LookPatiently([&](Search* looking) {
    for (const uint64_t offset : kSuperblockOffsets)
      Consider(source, offset, deviceUuid, buffer.get(), looking, &newest);
  });
  if (!search.found) return Unreadable(search);
  *out = newest;
  return Status();
}

Status CheckSuperblockCopies(ByteSource& source, const uint8_t* deviceUuid) {
  const AlignedBuffer buffer = MakeAlignedBuffer(kSuperblockSize);
  if (buffer == nullptr) return Status::Failed("out of memory");

  Superblock newest;
  ENGINE_TRY(ReadNewestSuperblock(source, deviceUuid, &newest));
  for (const uint64_t offset : kSuperblockOffsets) {
    // What lies beyond the file system's part of the device is none of its own, and the kernel wants
    // a byte more than the copy takes.
    if (newest.device.totalBytes.Get() <= offset + kSuperblockSize) break;
    Superblock copy;
    const Search search = LookPatiently([&](Search* looking) {
      Consider(source, offset, deviceUuid, buffer.get(), looking, &copy);
    });
    if (!search.found)
      return Status::Failed("the superblock at " + std::to_string(offset) + " is damaged" +
                            (search.readFailure.empty() ? "" : " (" + search.readFailure + ")"));
  }
  return Status();
}

Status CheckFeatures(const Superblock& superblock) {
  const uint64_t features = superblock.incompatFlags.Get();
  if ((features & kZonedFeature) != 0)
    return Status::Failed("zoned file systems cannot be read by this engine");
  if ((features & kExtentTreeV2Feature) != 0)
    return Status::Failed("the feature extent-tree-v2 cannot be read by this engine");
  const uint64_t unknown = features & ~kReadableFeatures;
  if (unknown != 0)
    return Status::Failed("the file system has a feature that this engine does not know (bit " +
                          std::to_string(__builtin_ctzll(unknown)) + "); use a newer engine");
  if (!IsBlockSize(superblock.nodeSize.Get()) || !IsBlockSize(superblock.sectorSize.Get()))
    return Status::Failed("the superblock has impossible block sizes");
  return Status();
}

const uint8_t* TreeBlockFsid(const Superblock& superblock) {
  const bool own = (superblock.incompatFlags.Get() & kMetadataUuidFeature) != 0;
  return own ? superblock.metadataUuid : superblock.fsid;
}

}  // namespace ZorvEngine
