// ring_queue.cc: reads in flight on an io_uring.
#include <errno.h>
#include <liburing.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "engine/io/read_queue.h"

namespace ZorvEngine {
namespace {

// One ring for all threads, under one lock.  Who waits holds it: then nothing has ended, so nearly
// everything is in flight, and who wants to begin a read loses nothing by waiting too.
class RingQueue : public ReadQueue {
 public:
  ~RingQueue() override {
    if (made_) io_uring_queue_exit(&ring_);
  }

  // False when the system refuses a ring, or refuses to do anything with it.
  bool Make(unsigned depth) {
    made_ = io_uring_queue_init(depth, &ring_, 0) == 0;
    return made_ && Works();
  }

  void Begin(QueuedRead* read) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    io_uring_sqe* entry = io_uring_get_sqe(&ring_);
    io_uring_prep_read(entry, read->source->Descriptor(), read->buffer,
                       static_cast<unsigned>(read->size), read->offset);
    io_uring_sqe_set_data(entry, read);
  }

  QueuedRead* Next() override {
    int got = 0;
    QueuedRead* read = Take(&got);
    const size_t there = got > 0 ? static_cast<size_t>(got) : 0;
    ReadPlainly(read, there / kDirectAlignment * kDirectAlignment);
    return read;
  }

 private:
  // Reads wait for each other to be handed over in one call, but no more than so many: the device
  // must not run out of work meanwhile.
  static constexpr unsigned kTogether = 4;

  // Some filters let a ring be made and not be used.
  bool Works() {
    io_uring_prep_nop(io_uring_get_sqe(&ring_));
    io_uring_cqe* ended = nullptr;
    if (io_uring_submit_and_wait(&ring_, 1) != 1 || io_uring_peek_cqe(&ring_, &ended) != 0)
      return false;
    io_uring_cqe_seen(&ring_, ended);
    return true;
  }

  QueuedRead* Take(int* got) {
    const std::lock_guard<std::mutex> lock(mutex_);
    io_uring_cqe* ended = nullptr;
    if (io_uring_sq_ready(&ring_) >= kTogether) HandOver(/*wait=*/0);
    while (io_uring_peek_cqe(&ring_, &ended) != 0) HandOver(/*wait=*/1);
    QueuedRead* read = static_cast<QueuedRead*>(io_uring_cqe_get_data(ended));
    *got = ended->res;
    io_uring_cqe_seen(&ring_, ended);
    return read;
  }

  // Hands what was begun over to the kernel, and waits for `wait` reads to end.  A kernel that is
  // short of memory takes it a moment later.
  void HandOver(unsigned wait) {
    const int handed = io_uring_submit_and_wait(&ring_, wait);
    if (handed < 0 && handed != -EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  std::mutex mutex_;
  io_uring ring_{};
  bool made_ = false;
};

}  // namespace

std::unique_ptr<ReadQueue> MakeRingQueue(unsigned depth) {
  auto queue = std::make_unique<RingQueue>();
  if (!queue->Make(depth)) return nullptr;
  return queue;
}

}  // namespace ZorvEngine
