#include "engine/ondisk/crc32c.h"

#include <string.h>

#include <array>
#include <cstddef>

#include "engine/ondisk/le.h"

namespace ZorvEngine {
namespace {

constexpr uint32_t kPolynomial = 0x82F63B78u;  // reflected: the highest bit is the constant term

using ByteTable = std::array<uint32_t, 256>;

// Table k holds the checksum of a byte followed by k zero bytes, so that eight bytes go in one
// step.
using CrcTables = std::array<ByteTable, 8>;

constexpr CrcTables MakeCrcTables() {
  CrcTables tables{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0u);
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

// The raw state `crc` (neither start nor end inverted) after `size` bytes more.
uint32_t ExtendByTables(uint32_t crc, const uint8_t* bytes, size_t size) {
  for (; size >= 8; size -= 8, bytes += 8) {
    const uint64_t word = reinterpret_cast<const Le64*>(bytes)->Get() ^ crc;
    crc = 0;
    for (int i = 0; i < 8; ++i) crc ^= kCrcTables[7 - i][(word >> (8 * i)) & 0xFF];
  }
  for (; size > 0; --size, ++bytes) crc = (crc >> 8) ^ kCrcTables[0][(crc ^ *bytes) & 0xFF];
  return crc;
}

#ifdef __x86_64__

// The product of two polynomials modulo the CRC's.
constexpr uint32_t Multiply(uint32_t a, uint32_t b) {
  uint32_t product = 0;
  for (uint32_t bit = 1u << 31; bit != 0; bit >>= 1) {
    if ((a & bit) != 0) product ^= b;
    b = (b >> 1) ^ ((b & 1) != 0 ? kPolynomial : 0u);
  }
  return product;
}

// What a state becomes when `Length` zero bytes follow, byte by byte of the state.
using ShiftTables = std::array<ByteTable, 4>;

constexpr ShiftTables MakeShiftTables(size_t length) {
  uint32_t shift = 1u << 31;        // the polynomial 1
  uint32_t power = 1u << (31 - 8);  // x^8: one zero byte
  for (; length != 0; length >>= 1) {
    if ((length & 1) != 0) shift = Multiply(shift, power);
    power = Multiply(power, power);
  }
  ShiftTables tables{};
  for (size_t at = 0; at < tables.size(); ++at)
    for (uint32_t byte = 0; byte < 256; ++byte)
      tables[at][byte] = Multiply(byte << (8 * at), shift);
  return tables;
}

uint32_t Shift(const ShiftTables& tables, uint32_t crc) {
  return tables[0][crc & 0xFF] ^ tables[1][(crc >> 8) & 0xFF] ^ tables[2][(crc >> 16) & 0xFF] ^
         tables[3][crc >> 24];
}

// Bytes of each of three streams: long ones for most of a block, short ones for what remains.
constexpr size_t kLongStream =
    1360;  // twelve are a block of 16 KiB but for 64 bytes, its checksum among them
constexpr size_t kShortStream = 128;
constexpr ShiftTables kLongShift = MakeShiftTables(kLongStream);
constexpr ShiftTables kShortShift = MakeShiftTables(kShortStream);

uint64_t Word(const uint8_t* bytes) {
  uint64_t word;
  memcpy(&word, bytes, sizeof word);
  return word;
}

// Goes over as many triples of streams of `length` bytes as there are.  The instruction takes three
// cycles and one can begin in each, so three streams that do not wait for each other go on at once.
__attribute__((target("sse4.2"))) uint32_t ExtendByThree(uint32_t crc, size_t length,
                                                         const ShiftTables& shift,
                                                         const uint8_t** bytes, size_t* size) {
  while (*size >= 3 * length) {
    uint64_t first = crc;
    uint64_t second = 0;
    uint64_t third = 0;
    const uint8_t* at = *bytes;
    for (const uint8_t* end = at + length; at < end; at += 8) {
      first = __builtin_ia32_crc32di(first, Word(at));
      second = __builtin_ia32_crc32di(second, Word(at + length));
      third = __builtin_ia32_crc32di(third, Word(at + 2 * length));
    }
    crc = Shift(shift, static_cast<uint32_t>(first)) ^ static_cast<uint32_t>(second);
    crc = Shift(shift, crc) ^ static_cast<uint32_t>(third);
    *bytes += 3 * length;
    *size -= 3 * length;
  }
  return crc;
}

__attribute__((target("sse4.2"))) uint32_t ExtendByInstruction(uint32_t crc, const uint8_t* bytes,
                                                               size_t size) {
  crc = ExtendByThree(crc, kLongStream, kLongShift, &bytes, &size);
  crc = ExtendByThree(crc, kShortStream, kShortShift, &bytes, &size);
  uint64_t state = crc;
  for (; size >= 8; size -= 8, bytes += 8) state = __builtin_ia32_crc32di(state, Word(bytes));
  crc = static_cast<uint32_t>(state);
  for (; size > 0; --size, ++bytes) crc = __builtin_ia32_crc32qi(crc, *bytes);
  return crc;
}

#endif  // __x86_64__

}  // namespace

bool HasCrc32cInstruction() {
#ifdef __x86_64__
  static const bool has = __builtin_cpu_supports("sse4.2") != 0;
  return has;
#else
  return false;
#endif
}

uint32_t Crc32cByTables(ByteView bytes) { return ~ExtendByTables(~0u, bytes.Data(), bytes.Size()); }

uint32_t Crc32cFrom(uint32_t begin, ByteView bytes) {
#ifdef __x86_64__
  if (HasCrc32cInstruction()) return ExtendByInstruction(begin, bytes.Data(), bytes.Size());
#endif
  return ExtendByTables(begin, bytes.Data(), bytes.Size());
}

uint32_t Crc32c(ByteView bytes) { return ~Crc32cFrom(~0u, bytes); }

}  // namespace ZorvEngine
