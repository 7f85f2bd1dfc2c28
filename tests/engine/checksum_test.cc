// Checksums against published vectors and against each other.
#include "engine/ondisk/checksum.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

ByteView Text(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// The definition, bit by bit.
uint32_t Crc32cSlow(ByteView bytes) {
  uint32_t crc = ~0u;
  for (size_t i = 0; i < bytes.Size(); ++i) {
    crc ^= bytes.Data()[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82F63B78u : 0);
  }
  return ~crc;
}

}  // namespace

// RFC 3720, appendix B.4, and the check value of the catalogue of CRC algorithms.
TEST(ChecksumCrc32c, AgreesWithPublishedVectors) {
  EXPECT_EQ(0xE3069283u, Crc32c(Text("123456789")));
  EXPECT_EQ(0x8A9136AAu, Crc32c(Text(std::string(32, '\0'))));
  EXPECT_EQ(0x62A8AB43u, Crc32c(Text(std::string(32, '\xFF'))));
  EXPECT_EQ(0u, Crc32c(ByteView()));
}

TEST(ChecksumCrc32c, AgreesWithItsDefinitionAtEveryLength) {
  Bytes bytes;
  for (int i = 0; i < 70; ++i) {
    EXPECT_EQ(Crc32cSlow(View(bytes)), Crc32c(View(bytes))) << bytes.size();
    bytes.push_back(static_cast<uint8_t>(i * 37 + 11));
  }
}

TEST(ChecksumHasValidChecksum, SeesOneFlippedBit) {
  Bytes block = MakeLeaf(65536, {});
  EXPECT_TRUE(HasValidChecksum(kCrc32c, View(block)));
  for (const size_t at : {size_t{0}, kChecksumSize, block.size() - 1}) {
    SCOPED_TRACE(at);
    block[at] ^= 1;
    EXPECT_FALSE(HasValidChecksum(kCrc32c, View(block)));
    block[at] ^= 1;
  }
}

TEST(ChecksumHasValidChecksum, IsFalseForShortBlocksAndUnknownTypes) {
  const Bytes block = MakeLeaf(65536, {});
  EXPECT_FALSE(HasValidChecksum(kCrc32c, ByteView(block.data(), kChecksumSize - 1)));
  EXPECT_FALSE(HasValidChecksum(99, View(block)));
}

TEST(ChecksumName, IsKnownForEachType) {
  EXPECT_STREQ("crc32c", ChecksumName(0));
  EXPECT_STREQ("xxhash64", ChecksumName(1));
  EXPECT_STREQ("sha256", ChecksumName(2));
  EXPECT_STREQ("blake2b", ChecksumName(3));
  EXPECT_STREQ("unknown", ChecksumName(4));
  EXPECT_FALSE(IsChecksumSupported(4));
}
