#include "engine/io/thread_team.h"

#include <system_error>

namespace ZorvEngine {

ThreadTeam::ThreadTeam(unsigned size) {
  try {
    while (threads_.size() + 1 < size) threads_.emplace_back([this] { WorkUntilEnd(); });
  } catch (const std::system_error&) {
    // The system has no more; what there is must do.
  }
}

ThreadTeam::~ThreadTeam() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    end_ = true;
  }
  called_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void ThreadTeam::Run(const std::function<void()>& job) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    job_ = &job;
    ++round_;
    busy_ = threads_.size();
  }
  called_.notify_all();
  job();
  std::unique_lock<std::mutex> lock(mutex_);
  done_.wait(lock, [this] { return busy_ == 0; });
}

void ThreadTeam::WorkUntilEnd() {
  uint64_t seen = 0;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    called_.wait(lock, [&] { return end_ || round_ != seen; });
    if (end_) return;
    seen = round_;
    const std::function<void()>& job = *job_;
    lock.unlock();
    job();
    lock.lock();
    if (--busy_ == 0) done_.notify_one();
  }
}

}  // namespace ZorvEngine
