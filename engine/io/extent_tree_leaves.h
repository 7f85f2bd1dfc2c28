// extent_tree_leaves.h: where the leaves of the extent tree are, without reading them.
#ifndef ENGINE_IO_EXTENT_TREE_LEAVES_H_
#define ENGINE_IO_EXTENT_TREE_LEAVES_H_

#include "engine/io/array_memory.h"
#include "engine/io/committed_trees.h"

namespace ZorvEngine {

// A leaf of the extent tree, and which kinds of extents its keys can be of.
struct ExtentTreeLeaf {
  uint64_t bytenr;
  uint64_t generation;
  bool treeBlocks;
  bool data;
};

// Fills `out` with the leaves that can speak of extents, in key order.  Reads the nodes above them,
// one leaf in a few hundred.
Status ListExtentTreeLeaves(CommittedTrees& trees, BigArray<ExtentTreeLeaf>* out);

}  // namespace ZorvEngine

#endif  // ENGINE_IO_EXTENT_TREE_LEAVES_H_
