// Where the tree blocks of a file system lie that an engine may read: found by the headers in its
// images, without the chunk tree that the engine goes by.
#ifndef TESTS_TORTURE_LIVE_BLOCKS_H_
#define TESTS_TORTURE_LIVE_BLOCKS_H_

#include <stdint.h>

#include <string>
#include <vector>

namespace ZorvTest {

// One block and where it lies.
struct LiveBlock {
  struct Copy {
    size_t device;  // position among the images
    uint64_t offset;
  };

  uint64_t bytenr = 0;
  uint64_t generation = 0;
  uint8_t level = 0;
  uint64_t tree = 0;
  std::vector<Copy> copies;  // in the order of the images
};

// Reads `images`, which must not change meanwhile (the file system is unmounted, or committed and
// quiet), and gives the blocks of the newest state: those of the chunk tree, the root tree, the
// extent tree and the subvolumes, each once.  `nodeSize` receives their size.  Throws when the
// images do not add up, for instance when a block has fewer than `copies` copies.
std::vector<LiveBlock> FindLiveBlocks(const std::vector<std::string>& images, size_t copies,
                                      uint32_t* nodeSize);

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_LIVE_BLOCKS_H_
