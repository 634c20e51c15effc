#pragma once

#include <limits>

// Replaces the allocation functions of the test program, but for those of over-aligned types.

namespace TestSupport {

// Counts the allocations of the calling thread while it lives and lets some of them fail. One at a
// time on each thread; to be used and destroyed on the thread that made it.
class AllocationWatch {
 public:
  static constexpr unsigned long long kAll = std::numeric_limits<unsigned long long>::max();

  // `successes` allocations succeed, the `failures` behind them fail, and all others succeed.
  explicit AllocationWatch(unsigned long long successes = kAll,
                           unsigned long long failures = kAll) noexcept;
  ~AllocationWatch();
  AllocationWatch(const AllocationWatch&) = delete;
  AllocationWatch& operator=(const AllocationWatch&) = delete;

  // Of all since the watch began, failed ones included.
  unsigned long long GetCount() const noexcept;
  unsigned long long GetFailureCount() const noexcept;
  // Of those that succeeded, less what the thread has freed, older things and other threads'
  // included.
  long long GetLiveCount() const noexcept;
  bool HasFailed() const noexcept { return GetFailureCount() != 0; }
};

// Runs `action` with the watch that lets 0, 1, ... allocations succeed and the `failures` behind
// them fail, until none has failed.
template <class Action>
void FailEachAllocation(Action&& action, unsigned long long failures = AllocationWatch::kAll) {
  bool has_failed = true;
  for (unsigned long long successes = 0; has_failed; ++successes) {
    const AllocationWatch watch(successes, failures);
    action(watch);
    has_failed = watch.HasFailed();
  }
}

}  // namespace TestSupport
