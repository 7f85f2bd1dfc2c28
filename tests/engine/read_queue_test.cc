// Both queues give the same bytes and the same failures; the pipeline takes the one that it can
// have.
#include "engine/io/read_queue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "engine/io/direct_device.h"
#include "engine/io/read_pipeline.h"
#include "engine/io/thread_team.h"
#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr size_t kBlocks = 1000;

uint8_t ByteOf(size_t block, size_t at) { return static_cast<uint8_t>(block * 7 + at * 13); }

// An image on a disk file system; the block with number n holds ByteOf(n, ...).
class Image {
 public:
  Image() : path_(std::string(ZORV_BINARY_DIR) + "/read_queue_test.image") {
    std::ofstream file(path_, std::ios::binary);
    for (size_t block = 0; block < kBlocks; ++block) {
      Bytes bytes(kNodeSize);
      for (size_t at = 0; at < bytes.size(); ++at) bytes[at] = ByteOf(block, at);
      file.write(reinterpret_cast<const char*>(bytes.data()), kNodeSize);
    }
  }
  ~Image() { (void)unlink(path_.c_str()); }

  const std::string& Path() const { return path_; }

 private:
  const std::string path_;
};

bool HoldsBlock(const uint8_t* bytes, size_t block) {
  for (size_t at = 0; at < kNodeSize; ++at)
    if (bytes[at] != ByteOf(block, at)) return false;
  return true;
}

// A source with the descriptor of another file, as if the ring had brought only a part.
class ShortSource : public ByteSource {
 public:
  ShortSource(ByteSource& whole, int shortFd) : whole_(whole), fd_(shortFd) {}
  Status ReadAt(uint64_t offset, uint8_t* buffer, size_t size) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    rests_.insert({offset, size});
    return whole_.ReadAt(offset, buffer, size);
  }
  uint64_t Size() const override { return whole_.Size(); }
  int Descriptor() const override { return fd_; }

  std::set<std::pair<uint64_t, size_t>> rests_;

 private:
  ByteSource& whole_;
  const int fd_;
  std::mutex mutex_;
};

enum Kind { kRing, kThreads, kNoThreads };

class ReadQueueTest : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    ASSERT_EQ("", device_.Open(image_.Path()).Text());
    queue_ =
        GetParam() == kRing ? MakeRingQueue(64) : MakeThreadQueue(GetParam() == kThreads ? 16 : 0);
    if (queue_ == nullptr) GTEST_SKIP() << "this system refuses an io_uring";
  }

  QueuedRead ReadOf(size_t slot, size_t block, size_t blocks) {
    QueuedRead read;
    read.source = &device_;
    read.offset = block * kNodeSize;
    read.buffer = arena_.get() + slot * kNodeSize;
    read.size = blocks * kNodeSize;
    return read;
  }

  Image image_;
  DirectDevice device_;
  AlignedBuffer arena_ = MakeAlignedBuffer(64 * kNodeSize);
  std::unique_ptr<ReadQueue> queue_;
};

std::string KindName(const testing::TestParamInfo<Kind>& kind) {
  const char* const kNames[] = {"Ring", "Threads", "NoThreads"};
  return kNames[kind.param];
}

INSTANTIATE_TEST_SUITE_P(Kinds, ReadQueueTest, testing::Values(kRing, kThreads, kNoThreads),
                         KindName);

}  // namespace

TEST_P(ReadQueueTest, BringsTheBytesOfEachRead) {
  std::vector<QueuedRead> reads(64);
  for (size_t round = 0; round < 10; ++round) {
    for (size_t i = 0; i < reads.size(); ++i) {
      reads[i] = ReadOf(i, (i * 37 + round * 64) % kBlocks, 1);
      queue_->Begin(&reads[i]);
    }
    std::set<QueuedRead*> ended;
    for (size_t i = 0; i < reads.size(); ++i) {
      QueuedRead* read = queue_->Next();
      EXPECT_TRUE(ended.insert(read).second);
      EXPECT_EQ("", read->status.Text());
      EXPECT_TRUE(HoldsBlock(read->buffer, read->offset / kNodeSize));
    }
  }
}

// At the end of a device a read comes short; the failure is that of a plain read.
TEST_P(ReadQueueTest, SaysWhatAPlainReadSays) {
  QueuedRead beyond = ReadOf(0, kBlocks - 1, 2);
  queue_->Begin(&beyond);
  EXPECT_EQ(&beyond, queue_->Next());
  EXPECT_EQ(image_.Path() + " at " +
                std::to_string(beyond.offset + kNodeSize * (GetParam() == kRing)) +
                " lies beyond the end of the device",
            beyond.status.Text());
}

// Each thread may get what another began; all are back before they are begun anew.
TEST_P(ReadQueueTest, ServesSeveralThreads) {
  std::vector<QueuedRead> reads(64);
  for (size_t i = 0; i < reads.size(); ++i) reads[i] = ReadOf(i, i * 15, 1);
  std::barrier allAreBack(4);
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < 4; ++thread)
    threads.emplace_back([&, thread] {
      for (size_t round = 0; round < 20; ++round) {
        for (size_t i = thread; i < reads.size(); i += 4) queue_->Begin(&reads[i]);
        for (size_t i = thread; i < reads.size(); i += 4) EXPECT_TRUE(queue_->Next()->status.Ok());
        allAreBack.arrive_and_wait();
      }
    });
  for (std::thread& thread : threads) thread.join();
  for (const QueuedRead& read : reads)
    EXPECT_TRUE(HoldsBlock(read.buffer, read.offset / kNodeSize));
}

// What the ring has not brought is read the plain way, and only that.
TEST(ReadQueueRing, GoesOnAfterAShortRead) {
  const std::unique_ptr<ReadQueue> queue = MakeRingQueue(8);
  if (queue == nullptr) GTEST_SKIP() << "this system refuses an io_uring";
  Image image;
  DirectDevice whole;
  ASSERT_EQ("", whole.Open(image.Path()).Text());
  const std::string start = image.Path() + ".start";
  {
    std::ifstream from(image.Path(), std::ios::binary);
    Bytes bytes(kNodeSize + 100);
    from.read(reinterpret_cast<char*>(bytes.data()), static_cast<long>(bytes.size()));
    std::ofstream(start, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
  }
  const UniqueFd fd(open(start.c_str(), O_RDONLY | O_CLOEXEC));
  (void)unlink(start.c_str());
  const AlignedBuffer buffer = MakeAlignedBuffer(3 * kNodeSize);
  for (const int descriptor : {fd.Get(), 99999}) {  // the second cannot be read at all
    ShortSource source(whole, descriptor);
    QueuedRead read;
    read.source = &source;
    read.buffer = buffer.get();
    read.size = 3 * kNodeSize;
    memset(buffer.get(), 0, read.size);
    queue->Begin(&read);
    EXPECT_EQ(&read, queue->Next());
    EXPECT_EQ("", read.status.Text());
    for (size_t block = 0; block < 3; ++block)
      EXPECT_TRUE(HoldsBlock(buffer.get() + block * kNodeSize, block));
    const size_t there = descriptor == fd.Get() ? kNodeSize : 0;
    EXPECT_EQ((std::set<std::pair<uint64_t, size_t>>{{there, 3 * kNodeSize - there}}),
              source.rests_);
  }
}

namespace {

// The blocks that a pipeline brings, by number; each must come once.
std::set<size_t> BlocksOf(ReadPipeline* pipeline, ByteSource* source) {
  std::vector<ReadRange> ranges;
  for (size_t block = 0; block < kBlocks; ++block)
    ranges.push_back({source, block * kNodeSize, kNodeSize});
  std::mutex mutex;
  std::set<size_t> blocks;
  EXPECT_EQ("", pipeline
                    ->Run(ranges,
                          [&](size_t index, uint8_t* bytes, const Status& read) {
                            const std::lock_guard<std::mutex> lock(mutex);
                            EXPECT_TRUE(HoldsBlock(bytes, index));
                            EXPECT_TRUE(blocks.insert(index).second);
                            return read;
                          })
                    .Text());
  return blocks;
}

}  // namespace

TEST(ReadPipeline, GivesTheSameWithTheRingAndWithout) {
  Image image;
  DirectDevice device;
  ASSERT_EQ("", device.Open(image.Path()).Text());
  const bool ringIsThere = MakeRingQueue(8) != nullptr;
  for (const bool allowRing : {true, false}) {
    SCOPED_TRACE(allowRing);
    ReadMeter meter;
    ReadOptions options;
    options.allowRing = allowRing;
    ReadPipeline pipeline(options, meter);
    EXPECT_EQ(kBlocks, BlocksOf(&pipeline, &device).size());
    EXPECT_EQ(kBlocks, BlocksOf(&pipeline, &device).size());  // and once more with what is there
    EXPECT_EQ(static_cast<uint32_t>(allowRing && ringIsThere ? ReadCounters::kRing
                                                             : ReadCounters::kThreads),
              meter.counters.way);
    EXPECT_EQ(2 * kBlocks, meter.counters.requests);
    EXPECT_EQ(2 * kBlocks * kNodeSize, meter.counters.bytesRead);
  }
}

TEST(ReadPipeline, ReadsFewOnTheCallersThread) {
  DeviceSet devices;
  MemoryDevice& device = AddMemoryDevice(&devices, 1, 16 * kNodeSize);
  ReadMeter meter;
  ReadPipeline pipeline({}, meter);
  std::set<std::thread::id> threads;
  const std::vector<ReadRange> ranges = {{&device, 0, kNodeSize}, {&device, kNodeSize, kNodeSize}};
  ASSERT_EQ("", pipeline
                    .Run(ranges,
                         [&](size_t, uint8_t*, const Status& read) {
                           threads.insert(std::this_thread::get_id());
                           return read;
                         })
                    .Text());
  EXPECT_EQ((std::set<std::thread::id>{std::this_thread::get_id()}), threads);
  EXPECT_EQ(static_cast<uint32_t>(ReadCounters::kNone), meter.counters.way);
}

TEST(ReadPipeline, HandsOnTheFailureOfARead) {
  DeviceSet devices;
  MemoryDevice& device = AddMemoryDevice(&devices, 1, 64 * kNodeSize);
  device.Break(20 * kNodeSize);
  ReadMeter meter;
  ReadPipeline pipeline({}, meter);
  std::vector<ReadRange> ranges;
  for (uint64_t block = 0; block < 64; ++block)
    ranges.push_back({&device, block * kNodeSize, kNodeSize});
  std::atomic<int> failed{0};
  ASSERT_EQ("", pipeline
                    .Run(ranges,
                         [&](size_t index, uint8_t*, const Status& read) {
                           if (!read.Ok()) ++failed;
                           EXPECT_EQ(index == 20 ? "Input/output error" : "", read.Text());
                           return Status();
                         })
                    .Text());
  EXPECT_EQ(1, failed);
}

TEST(ThreadTeam, RunsEachJobOnceOnEachThread) {
  for (const unsigned size : {1u, 2u, 5u}) {
    ThreadTeam team(size);
    for (int round = 0; round < 100; ++round) {
      std::mutex mutex;
      std::set<std::thread::id> threads;
      team.Run([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        EXPECT_TRUE(threads.insert(std::this_thread::get_id()).second);
      });
      EXPECT_EQ(size, threads.size());
      EXPECT_EQ(1u, threads.count(std::this_thread::get_id()));
    }
  }
}
