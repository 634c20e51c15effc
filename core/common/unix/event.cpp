#include "core/common/unix/event.h"

#include <sys/time.h>

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

}  // namespace

struct Event::Waiter : NonCopyable {
  ~Waiter() { pthread_cond_destroy(&condition); }

  std::uintptr_t Wait(std::uint32_t milliseconds) noexcept;
  // False if the waiter was woken before or has given up.
  bool Wake(const Event& event) noexcept;

  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  Mutex mutex;  // guards `result`
  std::uintptr_t result = kWaiting;
  // In the event's list, guarded by the event.
  Waiter* previous = nullptr;
  Waiter* next = nullptr;
};

std::uintptr_t Event::Waiter::Wait(std::uint32_t milliseconds) noexcept {
  const MutexLock lock(mutex);
  if (result != kWaiting) return result;
  if (milliseconds == kEndless) {
    while (result == kWaiting) {
      const int res = pthread_cond_wait(&condition, &mutex.GetNative());
      if (res != 0) {
        SafeAssert("res == 0 || !\"pthread_cond_wait() failed\"", __FILE__, __LINE__);
      }
    }
    return result;
  }
  const timespec deadline = DeadlineAfter(milliseconds);
  while (result == kWaiting &&
         pthread_cond_timedwait(&condition, &mutex.GetNative(), &deadline) != ETIMEDOUT) {
  }
  // A late Set passes this waiter by.
  if (result == kWaiting) result = kTimedOut;
  return result;
}

bool Event::Waiter::Wake(const Event& event) noexcept {
  const MutexLock lock(mutex);
  if (result != kWaiting) return false;
  result = reinterpret_cast<std::uintptr_t>(&event);
  pthread_cond_signal(&condition);
  return true;
}

Event::~Event() {
  // Waits until the Set that woke the destroying thread has left.
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
