// Reads given places of a device and does nothing with the bytes: the least that a program which
// reads these places can take.
//
//   replay_reads MOUNT DEVICE LIST DEPTH
//
// Like the engine it first has the file system at MOUNT commit. LIST holds pairs of 64-bit numbers
// in this machine's order: offset and length in bytes. Up to DEPTH reads are under way at a time,
// past the page cache, in the order of the list. Prints the microseconds from the first read's
// start to the last one's end.
#include <errno.h>
#include <fcntl.h>
#include <liburing.h>
#include <linux/btrfs.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace {

// One read of the list, as it stands in the file.
struct Place {
  uint64_t offset;
  uint64_t length;
};

[[noreturn]] void Fail(const std::string& where, int error) {
  fprintf(stderr, "replay_reads: %s: %s\n", where.c_str(), strerror(error));
  exit(1);
}

int64_t NowMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

UniqueFd OpenFile(const char* path, int flags) {
  UniqueFd fd(open(path, flags | O_CLOEXEC));
  if (!fd.Valid()) Fail(path, errno);
  return fd;
}

void Commit(const char* mount) {
  const UniqueFd fd = OpenFile(mount, O_RDONLY | O_DIRECTORY);
  __u64 generation = 0;
  if (ioctl(fd.Get(), BTRFS_IOC_START_SYNC, &generation) != 0) Fail(mount, errno);
  if (ioctl(fd.Get(), BTRFS_IOC_WAIT_SYNC, &generation) != 0) Fail(mount, errno);
}

std::vector<Place> LoadPlaces(const char* path) {
  const UniqueFd fd = OpenFile(path, O_RDONLY);
  struct stat info {};
  if (fstat(fd.Get(), &info) != 0) Fail(path, errno);
  std::vector<Place> places(static_cast<size_t>(info.st_size) / sizeof(Place));
  const size_t size = places.size() * sizeof(Place);
  if (read(fd.Get(), places.data(), size) != static_cast<ssize_t>(size)) Fail(path, EIO);
  return places;
}

// Reads places with a fixed number of buffers, each of the longest read's size.
class Replay {
 public:
  Replay(int fd, const std::vector<Place>& places, unsigned depth)
      : fd_(fd), places_(places), lengths_(depth) {
    for (const Place& place : places) bufferSize_ = std::max(bufferSize_, place.length);
    const int failed = io_uring_queue_init(depth, &ring_, 0);
    if (failed < 0) Fail("io_uring", -failed);
    void* memory = mmap(nullptr, std::max<size_t>(1, bufferSize_ * depth), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) Fail("buffers", errno);
    memory_ = static_cast<uint8_t*>(memory);
    for (unsigned slot = 0; slot < depth; ++slot) free_.push_back(slot);
  }
  ~Replay() { io_uring_queue_exit(&ring_); }
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  void Run() {
    while (done_ < places_.size()) {
      while (!free_.empty() && started_ < places_.size()) Start();
      const int failed = io_uring_submit_and_wait(&ring_, 1);
      if (failed < 0) Fail("io_uring", -failed);
      Collect();
    }
  }

 private:
  void Start() {
    const Place& place = places_[started_++];
    const unsigned slot = free_.back();
    free_.pop_back();
    io_uring_sqe* entry = io_uring_get_sqe(&ring_);
    io_uring_prep_read(entry, fd_, memory_ + slot * bufferSize_,
                       static_cast<unsigned>(place.length), place.offset);
    io_uring_sqe_set_data64(entry, slot);
    lengths_[slot] = place.length;
  }

  void Collect() {
    io_uring_cqe* done = nullptr;
    while (io_uring_peek_cqe(&ring_, &done) == 0) {
      const auto slot = static_cast<unsigned>(io_uring_cqe_get_data64(done));
      if (done->res < 0) Fail("read", -done->res);
      if (static_cast<uint64_t>(done->res) != lengths_[slot]) Fail("short read", EIO);
      free_.push_back(slot);
      io_uring_cqe_seen(&ring_, done);
      ++done_;
    }
  }

  int fd_;
  const std::vector<Place>& places_;
  uint64_t bufferSize_ = 0;
  io_uring ring_{};
  uint8_t* memory_ = nullptr;  // lives as long as the program
  std::vector<unsigned> free_;
  std::vector<uint64_t> lengths_;  // of the reads under way, by slot
  size_t started_ = 0;
  size_t done_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const int depth = argc == 5 ? atoi(argv[4]) : 0;
  if (depth < 1) {
    fprintf(stderr, "usage: replay_reads MOUNT DEVICE LIST DEPTH\n");
    return 2;
  }
  Commit(argv[1]);
  const std::vector<Place> places = LoadPlaces(argv[3]);
  const UniqueFd device = OpenFile(argv[2], O_RDONLY | O_DIRECT);
  Replay replay(device.Get(), places, static_cast<unsigned>(depth));
  const int64_t start = NowMicroseconds();
  replay.Run();
  printf("%lld\n", static_cast<long long>(NowMicroseconds() - start));
  return 0;
}
