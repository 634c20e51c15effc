#include "core/common/unix/event.h"

#include <sched.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "core/common/unix/safe_assert.h"

namespace Common {
namespace {

// Values of Waiter::result besides the address of the event.
constexpr std::uintptr_t kWaiting = 0;
constexpr std::uintptr_t kTimedOut = ~std::uintptr_t{0};

timespec DeadlineAfter(std::uint32_t milliseconds) {
  timeval now;
  gettimeofday(&now, nullptr);
  const long microseconds = now.tv_usec + static_cast<long>(milliseconds % 1000) * 1000;
  return timespec{now.tv_sec + milliseconds / 1000 + microseconds / 1000000,
                  microseconds % 1000000 * 1000};
}

// Turns of a busy wait: about as long as it takes to fall asleep and be woken on another processor.
constexpr int kSpins = 400;
// Busy waits in vain in a row after which a thread tries one only now and then.
constexpr unsigned int kMaxMisses = 4;
constexpr unsigned int kMissesBetweenTries = 32;

// Waiting busily for another thread needs a processor for that one. A failure means that there are
// more processors than the set has room for.
bool HasProcessors() noexcept {
  cpu_set_t own;
  return sched_getaffinity(0, sizeof own, &own) != 0 || CPU_COUNT(&own) > 1;
}
// False before this file's initialiser.
const bool has_processors = HasProcessors();
// Busy waits in vain of this thread in a row.
constinit thread_local unsigned int misses = 0;

void Pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

}  // namespace

struct Event::Waiter : NonCopyable {
  ~Waiter() { pthread_cond_destroy(&condition); }

  // The result if it comes at once, else kWaiting.
  std::uintptr_t Spin() const noexcept;
  std::uintptr_t Wait(std::uint32_t milliseconds) noexcept;
  // By a thread that holds the event, and so keeps the waiter alive. False if the waiter was woken
  // before or has given up.
  bool Wake(const Event& event) noexcept;

  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  Mutex mutex;  // guards changes of `result`; Spin reads it without
  std::atomic<std::uintptr_t> result{kWaiting};
  // In the event's list, guarded by the event.
  Waiter* previous = nullptr;
  Waiter* next = nullptr;
};

std::uintptr_t Event::Waiter::Spin() const noexcept {
  if (!has_processors) return kWaiting;
  if (misses >= kMaxMisses && misses % kMissesBetweenTries != 0) {
    ++misses;
    return kWaiting;
  }
  for (int i = 0; i < kSpins; ++i) {
    if (const std::uintptr_t found = result.load(std::memory_order_acquire); found != kWaiting) {
      misses = 0;
      return found;
    }
    Pause();
  }
  ++misses;
  return kWaiting;
}

std::uintptr_t Event::Waiter::Wait(std::uint32_t milliseconds) noexcept {
  if (const std::uintptr_t found = Spin(); found != kWaiting) return found;
  const MutexLock lock(mutex);
  if (milliseconds == kEndless) {
    while (result == kWaiting) {
      const int res = pthread_cond_wait(&condition, &mutex.GetNative());
      if (res != 0) {
        SafeAssert("res == 0 || !\"pthread_cond_wait() failed\"", __FILE__, __LINE__);
      }
    }
    return result;
  }
  if (result != kWaiting) return result;
  const timespec deadline = DeadlineAfter(milliseconds);
  while (result == kWaiting &&
         pthread_cond_timedwait(&condition, &mutex.GetNative(), &deadline) != ETIMEDOUT) {
  }
  // A late Set passes this waiter by.
  if (result == kWaiting) result = kTimedOut;
  return result;
}

bool Event::Waiter::Wake(const Event& event) noexcept {
  {
    const MutexLock lock(mutex);
    if (result != kWaiting) return false;
    result.store(reinterpret_cast<std::uintptr_t>(&event), std::memory_order_release);
  }
  // With the mutex free, so that the woken thread doesn't run into it.
  pthread_cond_signal(&condition);
  return true;
}

Event::~Event() {
  // For the list: a thread that wrongly still waits may be taking itself out.
  const MutexLock lock(mutex_);
  if (first_ != nullptr) {
    SafeAssert("EVENT_DATA.Waiters->empty() || !\"Destroying Event which is being Wait()'ed for\"",
               __FILE__, __LINE__);
  }
}

void Event::Set() noexcept {
  const MutexLock lock(mutex_);
  if (signalled_) return;
  signalled_ = true;
  // No waiter leaves the list, and so its stack, while the event is locked.
  for (Waiter* waiter = first_; waiter != nullptr; waiter = waiter->next) {
    if (waiter->Wake(*this) && !manual_reset_) {
      signalled_ = false;
      return;
    }
  }
}

void Event::Reset() noexcept {
  const MutexLock lock(mutex_);
  signalled_ = false;
}

bool Event::Wait(std::uint32_t millisec) noexcept {
  mutex_.Lock();
  if (signalled_) {
    signalled_ = manual_reset_;
    mutex_.Unlock();
    return true;
  }
  if (millisec == 0) {
    mutex_.Unlock();
    return false;
  }
  Waiter waiter;
  Append(waiter);
  mutex_.Unlock();

  const bool result = waiter.Wait(millisec) == reinterpret_cast<std::uintptr_t>(this);
  SAFE_ASSERT(millisec != ~0U || result);

  const MutexLock lock(mutex_);
  Remove(waiter);
  return result;
}

void Event::Append(Waiter& waiter) noexcept {
  waiter.previous = last_;
  (last_ != nullptr ? last_->next : first_) = &waiter;
  last_ = &waiter;
}

void Event::Remove(Waiter& waiter) noexcept {
  (waiter.previous != nullptr ? waiter.previous->next : first_) = waiter.next;
  (waiter.next != nullptr ? waiter.next->previous : last_) = waiter.previous;
}

}  // namespace Common
