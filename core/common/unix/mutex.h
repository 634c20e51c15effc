#pragma once

#include <pthread.h>

#include "core/common/non_copyable.h"

namespace Common {

// A recursive lock. Constant-initialised: usable in static constructors of any order. For locks
// that must also outlive static destruction see StaticMutex.
class Mutex : NonCopyable {
 public:
  constexpr Mutex() = default;
  ~Mutex() { pthread_mutex_destroy(&mutex_); }

  void Lock() noexcept { pthread_mutex_lock(&mutex_); }
  // By the owner, once per Lock. Asserts when the calling thread isn't the owner.
  void Unlock() noexcept {
    if (const int ret = pthread_mutex_unlock(&mutex_); ret != 0) [[unlikely]] {
      ReportFailedUnlock(ret);
    }
  }

  // For waits on a condition, which need it locked exactly once.
  pthread_mutex_t& GetNative() noexcept { return mutex_; }

 private:
  static void ReportFailedUnlock(int ret) noexcept;

  pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

// Holds a Mutex for a scope. The mutex must outlive it.
class [[nodiscard]] MutexLock : NonCopyable {
 public:
  explicit MutexLock(Mutex& mutex) noexcept : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() { mutex_.Unlock(); }

 private:
  Mutex& mutex_;
};

}  // namespace Common
