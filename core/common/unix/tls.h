#pragma once

#include <cstdint>

namespace Common {

// Slots of thread-local pointers. Slot 0 is a slot like any other.
class Tls {
 public:
  // No slot.
  static constexpr std::uint32_t OUT_OF_INDEXES = ~0U;

  // A new slot, null in every thread; OUT_OF_INDEXES when the system has no more. At the end of a
  // thread `destructor`, if not null, gets that thread's value unless it is null.
  static std::uint32_t Allocate(void (*destructor)(void*)) noexcept;
  // The other operations assert that `key` isn't OUT_OF_INDEXES, and fail when it is. Free runs no
  // destructors.
  static bool Free(std::uint32_t key) noexcept;
  // Null if never set in this thread.
  static void* Get(std::uint32_t key) noexcept;
  static bool Set(std::uint32_t key, void* value) noexcept;

  Tls() = delete;
};

}  // namespace Common
