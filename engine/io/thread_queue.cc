// thread_queue.cc: reads in flight on threads, each with one.
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "engine/io/read_queue.h"

namespace ZorvEngine {
namespace {

// Reads in the order in which they came; needs no memory of its own.
class ReadList {
 public:
  bool Empty() const { return first_ == nullptr; }

  void Add(QueuedRead* read) {
    read->next = nullptr;
    (Empty() ? first_ : last_->next) = read;
    last_ = read;
  }

  QueuedRead* TakeFirst() {
    QueuedRead* read = first_;
    first_ = read->next;
    return read;
  }

 private:
  QueuedRead* first_ = nullptr;
  QueuedRead* last_ = nullptr;
};

// Threads that each take the read that has waited longest.
class ThreadQueue : public ReadQueue {
 public:
  explicit ThreadQueue(unsigned threads) {
    try {
      while (threads_.size() < threads) threads_.emplace_back([this] { ReadUntilEnd(); });
    } catch (const std::system_error&) {
      // The system has no more; what there is must do.
    }
  }

  ~ThreadQueue() override {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      end_ = true;
    }
    begun_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

  void Begin(QueuedRead* read) override {
    if (threads_.empty()) return ReadHere(read);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      waiting_.Add(read);
    }
    begun_.notify_one();
  }

  QueuedRead* Next() override {
    std::unique_lock<std::mutex> lock(mutex_);
    ended_.wait(lock, [this] { return !finished_.Empty(); });
    return finished_.TakeFirst();
  }

 private:
  void ReadHere(QueuedRead* read) {
    ReadPlainly(read, 0);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      finished_.Add(read);
    }
    ended_.notify_one();
  }

  void ReadUntilEnd() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      begun_.wait(lock, [this] { return end_ || !waiting_.Empty(); });
      if (waiting_.Empty()) return;
      QueuedRead* read = waiting_.TakeFirst();
      lock.unlock();
      ReadHere(read);
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable begun_;
  std::condition_variable ended_;
  ReadList waiting_;
  ReadList finished_;
  bool end_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace

std::unique_ptr<ReadQueue> MakeThreadQueue(unsigned threads) {
  return std::make_unique<ThreadQueue>(threads);
}

}  // namespace ZorvEngine
