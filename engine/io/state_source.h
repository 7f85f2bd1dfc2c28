// state_source.h: where committed states of a file system come from.
#ifndef ENGINE_IO_STATE_SOURCE_H_
#define ENGINE_IO_STATE_SOURCE_H_

#include <string>
#include <vector>

#include "engine/io/device_set.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Devices and the superblocks that say what on them belongs together.
class StateSource {
 public:
  virtual ~StateSource() = default;

  // The devices; the source's own.  Both functions below may change the set.
  virtual const DeviceSet& Devices() const = 0;

  // Has what was written until now committed, and reads the superblock of that commit.  When this
  // is not to be had in time, `out` is the newest committed one and `note` says so; else `note` is
  // empty.
  virtual Status CommitAndReadSuperblock(Superblock* out, std::string* note) = 0;

  // Reads the newest committed superblock.
  virtual Status ReadSuperblock(Superblock* out) = 0;

  // Whether the last call found other devices than the one before: what was read in between may
  // have come from one that has been replaced.
  virtual bool DevicesChanged() const { return false; }

  // What is wrong with the devices although states can be read: a sentence for each.
  virtual std::vector<std::string> FindDamage() const { return {}; }
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_STATE_SOURCE_H_
