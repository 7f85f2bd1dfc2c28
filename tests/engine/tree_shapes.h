// What the trees of a mounted file system look like, read through the kernel.
#ifndef TESTS_ENGINE_TREE_SHAPES_H_
#define TESTS_ENGINE_TREE_SHAPES_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "tests/engine/features.h"

namespace ZorvTest {

struct ExtentTreeShape {
  // Tree blocks that subvolumes hold, each once.
  uint64_t fileTreeBlocks = 0;
  // Those of them that name the top level alone as their holder.  A block below a shared one may be
  // among them, so the number means something only where the top level has no snapshot.
  uint64_t topLevelBlocks = 0;
  // Kinds of references, such as "SharedDataRef" and, as an item of its own, "KeyedSharedDataRef".
  Features features;
};
ExtentTreeShape ReadExtentTree(const std::string& mountPoint);

// Kinds of file extents in subvolumes, such as "InlineExtent" and "ZstdExtent".
Features ReadFileExtents(const std::string& mountPoint, const std::vector<uint64_t>& subvolumes);

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_TREE_SHAPES_H_
