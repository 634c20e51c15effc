#include "platform/async_service/elastic_pool.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace Platform {

struct ElasticPool::Worker {
  std::thread thread;
  bool blocked = false;  // its task has said that it is about to block

  // The worker that the calling thread is, in any pool.
  static thread_local Worker* current;
  static thread_local const ElasticPool* current_pool;
};

thread_local ElasticPool::Worker* ElasticPool::Worker::current = nullptr;
thread_local const ElasticPool* ElasticPool::Worker::current_pool = nullptr;

ElasticPool::ElasticPool()
    : parallelism_(std::max<std::size_t>(2, std::thread::hardware_concurrency())) {}

ElasticPool::~ElasticPool() {
  Stop();
}

bool ElasticPool::Post(std::shared_ptr<PoolTask> task) {
  std::lock_guard lock(mutex_);
  if (stopping_ && workers_.empty()) return false;
  if (workers_.empty()) {
    StartTimekeeper();  // to be there when no thread can be had for the next task
    StartThread();
  }
  if (queue_.empty()) last_taken_ = Clock::now();
  queue_.push_back(std::move(task));
  StartThreadIfNeeded();
  if (idle_ != 0) work_.notify_one();
  return true;
}

bool ElasticPool::PostAt(Clock::time_point time, std::shared_ptr<PoolTask> task) {
  std::lock_guard lock(mutex_);
  if (stopping_) return false;
  StartTimekeeper();
  const auto timer = timers_.emplace(time, std::move(task));
  if (timer == timers_.begin()) time_.notify_one();
  return true;
}

void ElasticPool::NoteBlocked() {
  if (Worker::current_pool != this) return;
  std::lock_guard lock(mutex_);
  if (Worker::current->blocked) return;
  Worker::current->blocked = true;
  ++blocked_;
  StartThreadIfNeeded();
}

bool ElasticPool::IsOwnThread() const {
  return Worker::current_pool == this;
}

bool ElasticPool::IsStarved() const {
  return queue_.size() > idle_ && workers_.size() < kMaxThreads;
}

void ElasticPool::StartThreadIfNeeded() {
  if (!IsStarved()) return;
  if (workers_.size() - blocked_ < parallelism_) {
    try {
      StartThread();
      return;
    } catch (const std::exception&) {
      // No thread or no memory for one.
    }
  }
  time_.notify_one();  // the timekeeper sees to it as long as tasks are left
}

void ElasticPool::StartThread() {
  for (const auto& worker : retired_) worker->thread.join();
  retired_.clear();
  retired_.reserve(workers_.size() + 1);  // a thread at its end can't do without
  auto worker = std::make_unique<Worker>();
  Worker* const self = worker.get();
  workers_.push_back(std::move(worker));
  try {
    self->thread = std::thread([this, self] { Work(self); });
  } catch (...) {
    workers_.pop_back();
    throw;
  }
  ++idle_;  // until its first look at the queue
}

void ElasticPool::StartTimekeeper() {
  if (!timekeeper_.joinable() && !stopping_) timekeeper_ = std::thread([this] { KeepTime(); });
}

void ElasticPool::Work(Worker* self) {
  Worker::current = self;
  Worker::current_pool = this;
  std::unique_lock lock(mutex_);
  --idle_;
  for (;;) {
    if (!queue_.empty()) {
      std::shared_ptr<PoolTask> task = std::move(queue_.front());
      queue_.pop_front();
      last_taken_ = Clock::now();
      lock.unlock();
      task->Run();
      task.reset();
      lock.lock();
      if (std::exchange(self->blocked, false)) --blocked_;
      continue;
    }
    if (stopping_) break;
    ++idle_;
    const bool woken =
        work_.wait_for(lock, kIdleTime, [this] { return !queue_.empty() || stopping_; });
    --idle_;
    if (!woken) break;
  }
  // The last act under the lock: from here on whoever starts or ends a thread joins this one.
  const auto own = std::find_if(workers_.begin(), workers_.end(),
                                [self](const auto& worker) { return worker.get() == self; });
  retired_.push_back(std::move(*own));
  workers_.erase(own);
  if (workers_.empty()) work_.notify_all();
}

void ElasticPool::KeepTime() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    const Clock::time_point now = Clock::now();
    Clock::time_point next = Clock::time_point::max();
    try {
      while (!timers_.empty() && timers_.begin()->first <= now) {
        if (queue_.empty()) last_taken_ = now;
        queue_.push_back(std::move(timers_.begin()->second));
        timers_.erase(timers_.begin());
        if (idle_ != 0) work_.notify_one();
      }
      while (IsStarved() && workers_.size() - blocked_ < parallelism_) StartThread();
      if (IsStarved() && now - last_taken_ >= kStallTime) {
        StartThread();
        last_taken_ = now;
      }
      if (IsStarved()) next = last_taken_ + kStallTime;
      if (!timers_.empty()) next = std::min(next, timers_.begin()->first);
    } catch (const std::exception&) {
      next = now + kStallTime;  // no memory or no thread now: the next look tries again
    }
    if (next == Clock::time_point::max()) {
      time_.wait(lock);
    } else {
      time_.wait_until(lock, next);
    }
  }
}

void ElasticPool::Stop() {
  std::unique_lock lock(mutex_);
  stopping_ = true;
  std::thread timekeeper = std::move(timekeeper_);
  auto timers = std::move(timers_);
  timers_.clear();
  time_.notify_all();
  work_.notify_all();
  // The last tasks may wait for each other, and the timekeeper is gone.
  while (!work_.wait_for(lock, kStallTime, [this] { return workers_.empty(); })) {
    try {
      if (IsStarved()) StartThread();
    } catch (const std::exception&) {
      // The threads there are may still get through.
    }
  }
  auto retired = std::move(retired_);
  retired_.clear();
  lock.unlock();
  for (const auto& worker : retired) worker->thread.join();
  if (timekeeper.joinable()) timekeeper.join();
}

std::size_t ElasticPool::GetThreadCount() const {
  std::lock_guard lock(mutex_);
  return workers_.size();
}

}  // namespace Platform
