// CRC-32C against published values, its definition, and one way against the other.
#include "engine/ondisk/crc32c.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

using namespace ZorvEngine;

namespace {

ByteView Text(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// The definition, bit by bit.
uint32_t Slow(ByteView bytes) {
  uint32_t crc = ~0u;
  for (size_t i = 0; i < bytes.Size(); ++i) {
    crc ^= bytes.Data()[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82F63B78u : 0);
  }
  return ~crc;
}

std::vector<uint8_t> Noise(size_t size) {
  std::vector<uint8_t> bytes(size);
  uint32_t state = 1;
  for (uint8_t& byte : bytes)
    byte = static_cast<uint8_t>((state = state * 1664525 + 1013904223) >> 24);
  return bytes;
}

}  // namespace

// RFC 3720, appendix B.4, and the check value of the catalogue of CRC algorithms.
TEST(Crc32c, AgreesWithPublishedVectors) {
  for (uint32_t (*crc)(ByteView) : {&Crc32c, &Crc32cByTables}) {
    EXPECT_EQ(0xE3069283u, crc(Text("123456789")));
    EXPECT_EQ(0x8A9136AAu, crc(Text(std::string(32, '\0'))));
    EXPECT_EQ(0x62A8AB43u, crc(Text(std::string(32, '\xFF'))));
    EXPECT_EQ(0u, crc(ByteView()));
  }
}

// Both ways, at lengths around everything that they do at once, at every alignment.
TEST(Crc32c, AgreesWithItsDefinitionAtEveryLengthAndAlignment) {
  const std::vector<uint8_t> noise = Noise(9000);
  std::vector<size_t> lengths;
  for (size_t length = 0; length <= 800; ++length) lengths.push_back(length);
  for (const size_t around : {4064, 4080, 4096, 8160})
    for (size_t length = around - 20; length <= around + 20; ++length) lengths.push_back(length);
  for (size_t offset = 0; offset < 9; ++offset)
    for (const size_t length : lengths) {
      const ByteView bytes(noise.data() + offset, length);
      const uint32_t expected = length <= 800 && offset != 0 ? Crc32cByTables(bytes) : Slow(bytes);
      ASSERT_EQ(expected, Crc32cByTables(bytes)) << offset << "+" << length;
      ASSERT_EQ(expected, Crc32c(bytes)) << offset << "+" << length;
    }
}

TEST(Crc32c, SameForWholeBlocks) {
  const std::vector<uint8_t> noise = Noise(65536);
  for (const size_t size : {4096, 8192, 16384, 32768, 65536}) {
    const ByteView block(noise.data() + 32, size - 32);
    EXPECT_EQ(Slow(block), Crc32c(block));
    EXPECT_EQ(Slow(block), Crc32cByTables(block));
  }
}
