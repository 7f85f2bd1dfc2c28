#include "engine/ondisk/checksum.h"

#include <string.h>

#include "engine/ondisk/crc32c.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/hashes.h"
#include "engine/ondisk/le.h"

namespace ZorvEngine {
namespace {

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
