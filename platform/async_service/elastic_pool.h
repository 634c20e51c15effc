#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "core/common/non_copyable.h"

namespace Platform {

class PoolTask : public Common::NonCopyable {
 public:
  virtual ~PoolTask() = default;
  // Runs on a thread of the pool, once. Must not throw.
  virtual void Run() = 0;
};

// Threads for work that may block. Starts without any; a posted task finds an idle thread, or a new
// one as long as fewer than GetParallelism() are at work. A thread that says it is about to block
// (NoteBlocked) no longer counts as at work until its task has ended, and when no task was taken
// for kStallTime another thread is started all the same: work that waits for other work of the same
// pool doesn't deadlock, as long as fewer than kMaxThreads tasks wait at a time. When a thread
// can't be had, tries follow every kStallTime. A thread that was idle for kIdleTime ends.
//
// Threads: all operations from any, also from inside tasks; Stop not from a task.
class ElasticPool : public Common::NonCopyable {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kStallTime{10};
  static constexpr std::chrono::seconds kIdleTime{2};
  static constexpr std::size_t kMaxThreads = 512;

  ElasticPool();
  // Stops.
  ~ElasticPool();

  // Throws std::bad_alloc, or std::system_error if there is no thread and those to begin with, one
  // for tasks and one for the time, can't be had; then the task isn't kept. False after Stop: the
  // task is dropped.
  bool Post(std::shared_ptr<PoolTask> task);
  // Posts the task when the time has come. What Stop finds still waiting is dropped; false after
  // it.
  bool PostAt(Clock::time_point time, std::shared_ptr<PoolTask> task);
  // The calling thread, if it is one of the pool, is about to block.
  void NoteBlocked();
  // Whether the calling thread is one of the pool.
  bool IsOwnThread() const;

  // Runs the tasks that were posted, as long as a thread can be had, then ends all threads and
  // waits for them. Tasks posted by these last tasks run as well.
  void Stop();

  std::size_t GetParallelism() const { return parallelism_; }
  std::size_t GetThreadCount() const;

 private:
  struct Worker;

  // With the lock held.
  void StartThreadIfNeeded();
  void StartThread();
  void StartTimekeeper();
  bool IsStarved() const;

  void Work(Worker* self);
  void KeepTime();

  const std::size_t parallelism_;

  mutable std::mutex mutex_;  // guards everything below; never held while a task runs
  std::condition_variable work_;
  std::condition_variable time_;
  std::deque<std::shared_ptr<PoolTask>> queue_;
  std::multimap<Clock::time_point, std::shared_ptr<PoolTask>> timers_;
  std::vector<std::unique_ptr<Worker>> workers_;
  std::vector<std::unique_ptr<Worker>> retired_;  // ended, to be joined
  std::thread timekeeper_;
  Clock::time_point last_taken_;  // when a task was last taken from the queue
  std::size_t idle_ = 0;          // threads that will look for a task
  std::size_t blocked_ = 0;
  bool stopping_ = false;
};

}  // namespace Platform
