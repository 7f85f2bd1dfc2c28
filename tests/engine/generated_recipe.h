// What a generated file system is made of, all of it from its seed.
#ifndef TESTS_ENGINE_GENERATED_RECIPE_H_
#define TESTS_ENGINE_GENERATED_RECIPE_H_

#include "tests/engine/features.h"
#include "tests/support/btrfs_volume.h"

namespace ZorvTest {

struct Recipe {
  unsigned seed = 0;
  BtrfsOptions options;         // devices, mkfs, mount
  bool mixed = false;           // data and metadata in the same block groups
  unsigned nodeSize = 0;        // bytes
  bool manyReferences = false;  // one extent is referred to 10^5 times
  bool manySnapshots = false;   // of the same subvolume, 60, with small changes between them
  unsigned steps = 0;           // of the history
  Features features;  // of the format and the mount, such as "DataRaid5" and "Xxhash"
};

// The recipe of a seed: always the same.  Neighbouring seeds differ in profile, devices, node size
// and checksum, so that a few dozen have every one of them.
Recipe MakeRecipe(unsigned seed);

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_GENERATED_RECIPE_H_
