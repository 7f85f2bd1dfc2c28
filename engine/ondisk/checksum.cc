#include "engine/ondisk/checksum.h"

#include <string.h>

#include <array>

#include "engine/ondisk/format.h"
#include "engine/ondisk/hashes.h"
#include "engine/ondisk/le.h"

namespace ZorvEngine {
namespace {

// Table k holds the checksum of a byte followed by k zero bytes, so that eight bytes go in one
// step.
using CrcTables = std::array<std::array<uint32_t, 256>, 8>;

constexpr CrcTables MakeCrcTables() {
  CrcTables tables{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82F63B78u : 0u);
    tables[0][byte] = crc;
  }
  for (size_t table = 1; table < tables.size(); ++table)
    for (size_t byte = 0; byte < 256; ++byte) {
      const uint32_t before = tables[table - 1][byte];
      tables[table][byte] = (before >> 8) ^ tables[0][before & 0xFF];
    }
  return tables;
}

constexpr CrcTables kCrcTables = MakeCrcTables();

bool IsStored(const Hash256& hash, ByteView block) {
  return memcmp(hash.data(), block.Data(), hash.size()) == 0;
}

}  // namespace

const char* ChecksumName(uint16_t type) {
  switch (type) {
    case kCrc32c:
      return "crc32c";
    case kXxhash64:
      return "xxhash64";
    case kSha256:
      return "sha256";
    case kBlake2b:
      return "blake2b";
    default:
      return "unknown";
  }
}

bool IsChecksumSupported(uint16_t type) { return type <= kBlake2b; }

uint32_t Crc32c(ByteView bytes) {
  uint32_t crc = ~0u;
  size_t at = 0;
  for (; bytes.Size() - at >= 8; at += 8) {
    const uint64_t word = bytes.At<Le64>(at)->Get() ^ crc;
    crc = 0;
    for (int i = 0; i < 8; ++i) crc ^= kCrcTables[7 - i][(word >> (8 * i)) & 0xFF];
  }
  for (; at < bytes.Size(); ++at) crc = (crc >> 8) ^ kCrcTables[0][(crc ^ bytes.Data()[at]) & 0xFF];
  return ~crc;
}

bool HasValidChecksum(uint16_t type, ByteView block) {
  ByteView content;
  if (block.Size() < kChecksumSize) return false;
  if (!block.Sub(kChecksumSize, block.Size() - kChecksumSize, &content)) return false;
  switch (type) {
    case kCrc32c:
      return block.At<Le32>(0)->Get() == Crc32c(content);
    case kXxhash64:
      return block.At<Le64>(0)->Get() == Xxhash64(content);
    case kSha256:
      return IsStored(Sha256(content), block);
    case kBlake2b:
      return IsStored(Blake2b256(content), block);
    default:
      return false;
  }
}

}  // namespace ZorvEngine
