// format.h: the structures of btrfs as they stand on disk, as far as the engine reads them.
//
// All fields are little-endian and unaligned; sizes are proved below each structure.  Layout as in
// <linux/btrfs_tree.h> and the "On-disk Format" page of the btrfs documentation.
#ifndef ENGINE_ONDISK_FORMAT_H_
#define ENGINE_ONDISK_FORMAT_H_

#include <cstddef>
#include <cstdint>

#include "engine/ondisk/keys.h"
#include "engine/ondisk/le.h"

namespace ZorvEngine {

constexpr size_t kChecksumSize = 32;  // room in each header; what is used depends on the type
constexpr size_t kUuidSize = 16;
constexpr size_t kMostNameSize = 255;
constexpr uint8_t kMaxLevel = 7;

// A device, in the chunk tree and in each superblock.
struct DeviceItem {
  Le64 devid;
  Le64 totalBytes;
  Le64 bytesUsed;
  Le32 ioAlign;
  Le32 ioWidth;
  Le32 sectorSize;
  Le64 type;
  Le64 generation;
  Le64 startOffset;
  Le32 devGroup;
  Le8 seekSpeed;
  Le8 bandwidth;
  uint8_t uuid[kUuidSize];
  uint8_t fsid[kUuidSize];
};
static_assert(sizeof(DeviceItem) == 98 && alignof(DeviceItem) == 1, "98 bytes, unpadded");

// The superblock: copies at 64 KiB, 64 MiB and 256 GiB of each device.
constexpr size_t kSuperblockSize = 4096;
constexpr size_t kSystemChunkArraySize = 2048;
constexpr uint64_t kSuperblockMagic = 0x4D5F53665248425FULL;  // "_BHRfS_M"
constexpr uint64_t kSuperblockOffsets[] = {64ULL << 10, 64ULL << 20, 256ULL << 30};

struct Superblock {
  uint8_t checksum[kChecksumSize];
  uint8_t fsid[kUuidSize];
  Le64 bytenr;
  Le64 flags;
  Le64 magic;
  Le64 generation;
  Le64 root;
  Le64 chunkRoot;
  Le64 logRoot;
  Le64 logRootTransid;
  Le64 totalBytes;
  Le64 bytesUsed;
  Le64 rootDirObjectid;
  Le64 numDevices;
  Le32 sectorSize;
  Le32 nodeSize;
  Le32 leafSize;
  Le32 stripeSize;
  Le32 systemChunkArraySize;
  Le64 chunkRootGeneration;
  Le64 compatFlags;
  Le64 compatRoFlags;
  Le64 incompatFlags;
  Le16 checksumType;
  Le8 rootLevel;
  Le8 chunkRootLevel;
  Le8 logRootLevel;
  DeviceItem device;
  uint8_t label[256];
  Le64 cacheGeneration;
  Le64 uuidTreeGeneration;
  uint8_t metadataUuid[kUuidSize];
  uint8_t reserved[224];
  uint8_t systemChunkArray[kSystemChunkArraySize];
  uint8_t rootBackups[672];
  uint8_t padding[565];
};
static_assert(offsetof(Superblock, device) == 201, "device item");
static_assert(offsetof(Superblock, metadataUuid) == 571, "metadata uuid");
static_assert(offsetof(Superblock, systemChunkArray) == 811, "system chunk array");
static_assert(sizeof(Superblock) == kSuperblockSize && alignof(Superblock) == 1, "4096 bytes");

// Head of each tree block; items (level 0) or pointers (above) follow.
struct BlockHeader {
  uint8_t checksum[kChecksumSize];
  uint8_t fsid[kUuidSize];
  Le64 bytenr;
  Le64 flags;
  uint8_t chunkTreeUuid[kUuidSize];
  Le64 generation;
  Le64 owner;
  Le32 nritems;
  Le8 level;
};
static_assert(sizeof(BlockHeader) == 101 && alignof(BlockHeader) == 1, "101 bytes, unpadded");

// Item of a leaf; `offset` of its data counts from the end of the header.
struct LeafItem {
  DiskKey key;
  Le32 offset;
  Le32 size;
};
static_assert(sizeof(LeafItem) == 25 && alignof(LeafItem) == 1, "25 bytes, unpadded");

// Pointer of a node: first key, place and generation of the child.
struct KeyPointer {
  DiskKey key;
  Le64 bytenr;
  Le64 generation;
};
static_assert(sizeof(KeyPointer) == 33 && alignof(KeyPointer) == 1, "33 bytes, unpadded");

// Where one copy (or stripe) of a chunk lies.
struct ChunkStripe {
  Le64 devid;
  Le64 offset;
  uint8_t deviceUuid[kUuidSize];
};
static_assert(sizeof(ChunkStripe) == 32 && alignof(ChunkStripe) == 1, "32 bytes, unpadded");

// A range of logical addresses; `numStripes` stripes follow.  The logical start is the key's
// offset.
struct ChunkItem {
  Le64 length;
  Le64 owner;
  Le64 stripeLength;
  Le64 type;
  Le32 ioAlign;
  Le32 ioWidth;
  Le32 sectorSize;
  Le16 numStripes;
  Le16 subStripes;
};
static_assert(sizeof(ChunkItem) == 48 && alignof(ChunkItem) == 1, "48 bytes, unpadded");

constexpr uint64_t kChunkData = 1ULL << 0;
constexpr uint64_t kChunkSystem = 1ULL << 1;
constexpr uint64_t kChunkMetadata = 1ULL << 2;
constexpr uint64_t kChunkKinds = kChunkData | kChunkSystem | kChunkMetadata;
constexpr uint64_t kChunkDup = 1ULL << 5;

// A moment: seconds since the epoch (negative before it) and nanoseconds.
struct DiskTime {
  Le64 seconds;
  Le32 nanoseconds;
};
static_assert(sizeof(DiskTime) == 12 && alignof(DiskTime) == 1, "12 bytes, unpadded");

// What is known of a file or directory but for its names and data.
struct InodeItem {
  Le64 generation;  // in which it was made
  Le64 transid;
  Le64 size;
  Le64 bytesUsed;
  Le64 blockGroup;
  Le32 links;
  Le32 uid;
  Le32 gid;
  Le32 mode;
  Le64 rdev;
  Le64 flags;
  Le64 sequence;
  Le64 reserved[4];
  DiskTime accessed;
  DiskTime changed;
  DiskTime modified;
  DiskTime born;
};
static_assert(sizeof(InodeItem) == 160 && alignof(InodeItem) == 1, "160 bytes, unpadded");

// Head of a name in the directory that the key's offset says; the name follows, and further heads
// with names may.
struct InodeRef {
  Le64 index;
  Le16 nameSize;
};
static_assert(sizeof(InodeRef) == 10 && alignof(InodeRef) == 1, "10 bytes, unpadded");

// The same for names that have no room there; these say their directories themselves.
struct InodeExtref {
  Le64 parent;
  Le64 index;
  Le16 nameSize;
};
static_assert(sizeof(InodeExtref) == 18 && alignof(InodeExtref) == 1, "18 bytes, unpadded");

// Head of an entry of a directory; its name follows, then `dataSize` bytes, then further entries.
struct DirItem {
  DiskKey location;  // an inode, or the root item of a nested subvolume
  Le64 transid;
  Le16 dataSize;
  Le16 nameSize;
  Le8 type;
};
static_assert(sizeof(DirItem) == 30 && alignof(DirItem) == 1, "30 bytes, unpadded");

// Root item, up to what the oldest file systems have; the inode item (160 bytes) is skipped.
struct RootItem {
  uint8_t inode[160];
  Le64 generation;
  Le64 rootDirid;
  Le64 bytenr;
  Le64 byteLimit;
  Le64 bytesUsed;
  Le64 lastSnapshot;
  Le64 flags;
  Le32 refs;
  DiskKey dropProgress;
  Le8 dropLevel;
  Le8 level;
};
static_assert(sizeof(RootItem) == 239 && alignof(RootItem) == 1, "239 bytes, unpadded");

// Head of an extent or metadata item; inline references follow.
struct ExtentItem {
  Le64 refs;
  Le64 generation;
  Le64 flags;
};
static_assert(sizeof(ExtentItem) == 24 && alignof(ExtentItem) == 1, "24 bytes, unpadded");

constexpr uint64_t kExtentIsData = 1ULL << 0;
constexpr uint64_t kExtentIsTreeBlock = 1ULL << 1;

// Follows ExtentItem for a tree block under an extent item key (not under a metadata item key).
struct TreeBlockInfo {
  DiskKey firstKey;
  Le8 level;
};
static_assert(sizeof(TreeBlockInfo) == 18 && alignof(TreeBlockInfo) == 1, "18 bytes, unpadded");

// File extent item, the head that all of them have; what is stored inline follows.
struct FileExtentHead {
  Le64 generation;
  Le64 ramBytes;
  Le8 compression;
  Le8 encryption;
  Le16 otherEncoding;
  Le8 type;
};
static_assert(sizeof(FileExtentHead) == 21 && alignof(FileExtentHead) == 1, "21 bytes, unpadded");

constexpr uint8_t kFileExtentInline = 0;
constexpr uint8_t kFileExtentRegular = 1;
constexpr uint8_t kFileExtentPreallocated = 2;

// Follows FileExtentHead unless the data is inline.  A hole has `diskBytenr` 0.
struct FileExtentPlace {
  Le64 diskBytenr;
  Le64 diskBytes;
  Le64 offset;
  Le64 bytes;
};
static_assert(sizeof(FileExtentPlace) == 32 && alignof(FileExtentPlace) == 1, "32 bytes");

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_FORMAT_H_
