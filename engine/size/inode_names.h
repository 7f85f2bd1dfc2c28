// inode_names.h: the names of many files of one tree.
#ifndef ENGINE_SIZE_INODE_NAMES_H_
#define ENGINE_SIZE_INODE_NAMES_H_

#include <cstdint>
#include <functional>
#include <span>

#include "engine/io/block_reader.h"
#include "engine/ondisk/name_items.h"

namespace ZorvEngine {

// Takes one name of an inode; it lives during the call.
using NameSink = std::function<void(uint64_t inode, const FileName& name)>;

// Gives each name of `inodes` (rising) to `sink`, in any order.  Reads the leaves in which names of
// theirs stand or would, each once, many at a time.  Fails for what cannot be a name.
Status VisitNamesOf(BlockReader& reader, const BlockPointer& root, std::span<const uint64_t> inodes,
                    const NameSink& sink);

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_INODE_NAMES_H_
