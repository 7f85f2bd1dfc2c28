// Deletes subvolumes one after the other and holds what comes free against what was foretold.
#ifndef TESTS_ENGINE_DELETION_STEPS_H_
#define TESTS_ENGINE_DELETION_STEPS_H_

#include <string>
#include <vector>

#include "tests/support/btrfs_volume.h"

namespace ZorvTest {

struct Deletion {
  std::string path;  // from the mount point
  unsigned long long id = 0;
  bool isNested = false;  // in another subvolume than the top level
};

struct DeletionRules {
  unsigned nodeSize = 16384;
  bool mixed = false;                // the kernel cannot tell data from metadata
  bool topLevelHasSnapshot = false;  // its own blocks cannot be told from the others
};

// Asks the engine for the plan of this order, in both ways of counting, and follows it; each
// deletion is a step, with expectations of its own.  Data that comes free must be the plan's to the
// byte; so must the tree blocks of subvolumes.  Where a name leaves a directory that other
// subvolumes share, their trees change with it: a few blocks are allowed for then, and the plan for
// what is left is asked for anew.  Returns the steps done: it ends at the first that differs.
unsigned DeleteInOrder(const BtrfsVolume& volume, const std::vector<Deletion>& order,
                       const DeletionRules& rules);

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_DELETION_STEPS_H_
