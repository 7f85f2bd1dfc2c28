// state_source.h: where committed states of a file system come from.
#ifndef ENGINE_IO_STATE_SOURCE_H_
#define ENGINE_IO_STATE_SOURCE_H_

#include <string>

#include "engine/io/byte_source.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// A device and the superblocks that say what on it belongs together.
class StateSource {
 public:
  virtual ~StateSource() = default;

  // The device; the source's own.
  virtual ByteSource& Device() = 0;

  // Has what was written until now committed, and reads the superblock of that commit.  When this
  // is not to be had in time, `out` is the newest committed one and `note` says so; else `note` is
  // empty.
  virtual Status CommitAndReadSuperblock(Superblock* out, std::string* note) = 0;

  // Reads the newest committed superblock.
  virtual Status ReadSuperblock(Superblock* out) = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_STATE_SOURCE_H_
