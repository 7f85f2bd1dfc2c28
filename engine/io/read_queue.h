// read_queue.h: reads of devices, many of them in flight.
#ifndef ENGINE_IO_READ_QUEUE_H_
#define ENGINE_IO_READ_QUEUE_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "engine/io/byte_source.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// One read that somebody wants; his until it is begun and again when it has ended.
struct QueuedRead {
  ByteSource* source = nullptr;
  uint64_t offset = 0;
  uint8_t* buffer = nullptr;  // offset, address and size as ByteSource::ReadAt wants them
  size_t size = 0;
  Status status;               // of a read that has ended; the text is that of ByteSource::ReadAt
  QueuedRead* next = nullptr;  // for the queue
};

// Makes what is left of a read when `there` bytes have come: the plain way, which goes on after
// short reads and has words for failures.
void ReadPlainly(QueuedRead* read, size_t there);

// Reads in flight.  Both functions may be called from several threads at once.
// A queue is destroyed when nothing is in flight.
class ReadQueue {
 public:
  virtual ~ReadQueue() = default;

  // Begins a read.  At most as many are in flight as the queue was made for.
  virtual void Begin(QueuedRead* read) = 0;

  // Waits for a read to end.  One must be in flight for each caller.
  virtual QueuedRead* Next() = 0;
};

// A queue of up to `depth` reads on an io_uring, for sources that have a descriptor.  Null where
// the system refuses it: no such call, forbidden by sysctl or seccomp, or no memory for it.
std::unique_ptr<ReadQueue> MakeRingQueue(unsigned depth);

// A queue of any number of reads on `threads` threads, for sources of any kind.  Where fewer
// threads can be had, there are fewer; with none, reads are made as they begin.
std::unique_ptr<ReadQueue> MakeThreadQueue(unsigned threads);

}  // namespace ZorvEngine

#endif  // ENGINE_IO_READ_QUEUE_H_
