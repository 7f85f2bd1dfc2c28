// device_set.h: the devices of a file system, by number, those that are missing included.
#ifndef ENGINE_IO_DEVICE_SET_H_
#define ENGINE_IO_DEVICE_SET_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/io/byte_source.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// A device that can be read, and what its own superblock says about it.
struct Device {
  std::unique_ptr<ByteSource> source;
  uint8_t uuid[kUuidSize] = {};
  // Stands in the header of each tree block on this device.  A seed device keeps the one of the
  // file system that it was written as.
  uint8_t blockFsid[kUuidSize] = {};
};

// The devices of one file system.  A number that nobody has added is a missing device too: the
// chunks may name one that the kernel does not.
class DeviceSet {
 public:
  void Add(uint64_t devid, Device device);

  // A device that cannot be read; `why` is one sentence, empty when nobody knows it.
  void AddMissing(uint64_t devid, std::string why);

  // The device with this number; null when it is missing.  Lives until the set changes.
  const Device* Find(uint64_t devid) const;

  // What is wrong with a device that Find does not give, to follow its number in a sentence.
  std::string WhyMissing(uint64_t devid) const;

  // Numbers of the devices that have been added as missing.
  std::vector<uint64_t> Missing() const;

  // Whether one of the devices rotates.
  bool Rotates() const;

  // Whether both sets have the same devices under the same numbers, wherever those were found.
  bool SameAs(const DeviceSet& other) const;

  // Reads the newest superblock on any of the devices: one that was away for a while has an old
  // one, and so has a seed.  Fails when no device has any; the text is the first device's.
  Status ReadNewestSuperblock(Superblock* out) const;

  // What is wrong with devices although the file system can be read: those that are there and
  // cannot be used, and copies of superblocks that are damaged.  A sentence for each.
  std::vector<std::string> FindDamage() const;

 private:
  std::map<uint64_t, Device> devices_;
  std::map<uint64_t, std::string> missing_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_DEVICE_SET_H_
