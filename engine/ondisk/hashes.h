// hashes.h: the hash functions that stand in for a CRC as checksum of a file system.
#ifndef ENGINE_ONDISK_HASHES_H_
#define ENGINE_ONDISK_HASHES_H_

#include <array>
#include <cstdint>

#include "engine/ondisk/byte_view.h"

namespace ZorvEngine {

using Hash256 = std::array<uint8_t, 32>;

// XXH64 with seed 0, as the description of the xxHash family has it.
uint64_t Xxhash64(ByteView bytes);

// SHA-256 (FIPS 180-4).
Hash256 Sha256(ByteView bytes);

// BLAKE2b without key and with a digest of 256 bits (RFC 7693).
Hash256 Blake2b256(ByteView bytes);

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_HASHES_H_
