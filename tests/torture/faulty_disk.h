// A disk that fails on command: a file that a process of its own serves through FUSE, with faults
// in what is read from it.
#ifndef TESTS_TORTURE_FAULTY_DISK_H_
#define TESTS_TORTURE_FAULTY_DISK_H_

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace ZorvTest {

// What happens to reads that touch a range of bytes.  Writing is never disturbed.
struct DiskFault {
  enum Kind {
    kError,    // the read fails with EIO
    kShort,    // it gives nothing from `begin` on
    kDelay,    // it takes `detail` milliseconds longer, or until the faults are cleared
    kFlip,     // bit `detail` of the range is the other way round
    kOther,    // the range has the bytes of `other` in place of its own
    kTorn,     // the range's second half has those of `other`
    kFlicker,  // every other read gives `other`
  };

  uint64_t begin = 0;
  uint64_t size = 0;  // at most kMostBytes for those with `other`
  Kind kind = kError;
  uint32_t detail = 0;
  std::vector<uint8_t> other = {};  // `size` bytes

  static constexpr size_t kMostBytes = 65536;
};

// A file with the content of `image`, whose writes go there; a loop device can stand on it.
//
// Everything goes with the object: reads that are under way fail then.  When the test's process
// dies, the server is killed, the kernel ends the connection, and nothing waits for it.
class FaultyDisk {
 public:
  // `place` is made, as an empty file to serve at.
  FaultyDisk(const std::string& image, const std::string& place);
  ~FaultyDisk();
  FaultyDisk(const FaultyDisk&) = delete;
  FaultyDisk& operator=(const FaultyDisk&) = delete;

  // Path of the file that fails.
  const std::string& Path() const { return place_; }

  // Path of the image below: what is read here is as it was written.
  const std::string& Image() const { return image_; }

  // Adds a fault; returns its number for Hits.  At most 32 at a time.
  size_t Add(const DiskFault& fault);

  // How many reads the fault has met.
  unsigned Hits(size_t fault) const;

  // Ends all faults; reads that were held go on.
  void Clear();

 private:
  struct Shared;

  std::string image_;
  std::string place_;
  Shared* shared_;
  pid_t server_;
};

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_FAULTY_DISK_H_
