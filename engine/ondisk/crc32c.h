// crc32c.h: CRC-32C, the checksum of most file systems.
#ifndef ENGINE_ONDISK_CRC32C_H_
#define ENGINE_ONDISK_CRC32C_H_

#include <cstdint>

#include "engine/ondisk/byte_view.h"

namespace ZorvEngine {

// CRC-32C (Castagnoli, reflected 0x82F63B78, initial value and final xor all ones) of `bytes`, with
// the processor's instruction where there is one.
uint32_t Crc32c(ByteView bytes);

// The state (neither beginning nor end inverted) that `bytes` make of the state `begin`.
uint32_t Crc32cFrom(uint32_t begin, ByteView bytes);

// Crc32c without the instruction; apart for tests and measuring.
uint32_t Crc32cByTables(ByteView bytes);

// Whether this processor has the instruction.
bool HasCrc32cInstruction();

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_CRC32C_H_
