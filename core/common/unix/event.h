#pragma once

#include <cstdint>

#include "core/common/non_copyable.h"
#include "core/common/unix/mutex.h"

namespace Common {

// A signal that threads wait for.
//
// Manual reset: Set wakes all waiters and the event stays signalled until Reset.
// Otherwise: Set wakes the first thread that still waits, or stays signalled for the next Wait;
// either consumes the signal.
//
// A thread whose Wait has returned true may destroy the event at once: Set touches nothing behind
// its unlock, and that Wait can't return before it. Never throws, never allocates.
class Event : NonCopyable {
 public:
  static constexpr std::uint32_t kEndless = ~0U;

  constexpr Event(bool manual_reset, bool signalled)
      : manual_reset_(manual_reset), signalled_(signalled) {}
  // Asserts that nobody waits.
  ~Event();

  void Set() noexcept;
  void Reset() noexcept;
  // True if signalled, false after `milliseconds` of the real-time clock. 0 doesn't block.
  bool Wait(std::uint32_t milliseconds) noexcept;
  // Waits without a limit.
  bool Wait() noexcept { return Wait(kEndless); }

 private:
  struct Waiter;

  void Append(Waiter& waiter) noexcept;
  void Remove(Waiter& waiter) noexcept;

  Mutex mutex_;  // guards all fields; locked before a waiter's mutex, never after
  // Waiters in order of arrival; they live on the stacks of their threads and take themselves out.
  Waiter* first_ = nullptr;
  Waiter* last_ = nullptr;
  const bool manual_reset_;
  bool signalled_;
};

}  // namespace Common
