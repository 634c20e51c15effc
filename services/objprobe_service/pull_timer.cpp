#include "services/objprobe_service/pull_timer.h"

#include <utility>

namespace ObjProbeService {

PullTimer::~PullTimer() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    change_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

std::uint64_t PullTimer::Add(std::weak_ptr<Waiter> waiter) {
  const std::lock_guard lock(mutex_);
  if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
  const std::uint64_t number = last_ + 1;
  waits_.emplace_hint(waits_.end(), number, Wait{Clock::now() + wait_, std::move(waiter)});
  last_ = number;
  // Whoever came before ends before.
  if (waits_.size() == 1) change_.notify_all();
  return number;
}

void PullTimer::Remove(std::uint64_t number) {
  const std::lock_guard lock(mutex_);
  waits_.erase(number);
}

void PullTimer::Run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (waits_.empty()) {
      change_.wait(lock);
      continue;
    }
    const auto first = waits_.begin();
    const Clock::time_point end = first->second.end;
    if (Clock::now() < end) {
      change_.wait_until(lock, end);
      continue;
    }
    const std::uint64_t number = first->first;
    const std::weak_ptr<Waiter> weak = std::move(first->second.waiter);
    waits_.erase(first);
    lock.unlock();
    if (const std::shared_ptr<Waiter> waiter = weak.lock()) waiter->OnWaited(number);
    lock.lock();
  }
}

}  // namespace ObjProbeService
