#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <atomic>

#include "core/common/non_copyable.h"

namespace Common {

// A recursive lock for static storage: constant-initialised and never destroyed, so it guards
// one-time initialisations in any order of static construction and destruction.
//
// Costs one atomic addition without contention. The first conflict makes a semaphore, which stays
// until Close.
class StaticMutex : NonCopyable {
 public:
  constexpr StaticMutex() = default;

  void Lock() noexcept {
    const pthread_t self = pthread_self();
    if (count_.fetch_add(1) == 0) {
      Own(self);
    } else if (owner_.load(std::memory_order_relaxed) == self) {
      ++depth_;
    } else {
      WaitForTurn();
      Own(self);
    }
    if (closing_.load(std::memory_order_relaxed)) [[unlikely]]
      DiscardSemaphore();
  }

  // By the owner, once per Lock.
  void Unlock() noexcept {
    if (--depth_ != 0) {
      count_.fetch_sub(1);
      return;
    }
    owner_.store(0, std::memory_order_relaxed);
    if (count_.fetch_sub(1) != 1) WakeNext();
  }

  // At shutdown: from now on each Lock gives the semaphore back at its end when nobody waits, and
  // so does this call if the lock is free or the caller's own. The mutex stays usable.
  void Close() noexcept;

 private:
  void Own(pthread_t self) noexcept {
    depth_ = 1;
    owner_.store(self, std::memory_order_relaxed);
  }
  sem_t* GetSemaphore() noexcept;
  void WaitForTurn() noexcept;
  void WakeNext() noexcept;
  // Only for the owner.
  void DiscardSemaphore() noexcept;

  // Locks held plus threads that wait for one. Every change is sequentially consistent: it orders
  // `depth_`, and DiscardSemaphore relies on the one order of it and `semaphore_`.
  std::atomic<long long> count_{0};
  unsigned long long depth_ = 0;  // of the owner, touched by nobody else
  // 0 when free. Others read it only to find that it isn't them, so it needs no order.
  std::atomic<pthread_t> owner_{0};
  std::atomic<sem_t*> semaphore_{nullptr};  // all ones while it is being discarded
  std::atomic<bool> closing_{false};
};

// Holds a StaticMutex for a scope. The mutex must outlive it.
class [[nodiscard]] StaticMutexLock : NonCopyable {
 public:
  explicit StaticMutexLock(StaticMutex& mutex) noexcept : mutex_(mutex) { mutex_.Lock(); }
  ~StaticMutexLock() { mutex_.Unlock(); }

 private:
  StaticMutex& mutex_;
};

}  // namespace Common
