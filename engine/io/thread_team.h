// thread_team.h: threads that do one job together, again and again.
#ifndef ENGINE_IO_THREAD_TEAM_H_
#define ENGINE_IO_THREAD_TEAM_H_

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ZorvEngine {

// The caller's thread and some of its own, which wait between jobs and end with the team.
class ThreadTeam {
 public:
  // A team of `size` threads, the caller's included; of fewer where the system has no more.
  explicit ThreadTeam(unsigned size);
  ~ThreadTeam();
  ThreadTeam(const ThreadTeam&) = delete;
  ThreadTeam& operator=(const ThreadTeam&) = delete;

  // Runs `job` once on each thread of the team and returns when all have ended.  It must not throw.
  // One caller at a time, and never from within a job.
  void Run(const std::function<void()>& job);

 private:
  void WorkUntilEnd();

  std::mutex mutex_;
  std::condition_variable called_;
  std::condition_variable done_;
  const std::function<void()>* job_ = nullptr;
  uint64_t round_ = 0;
  size_t busy_ = 0;
  bool end_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_THREAD_TEAM_H_
