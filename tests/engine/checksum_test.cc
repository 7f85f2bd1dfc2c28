// Which checksum stands at the head of a block, and whether it is right.
#include "engine/ondisk/checksum.h"

#include <gtest/gtest.h>

#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

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
