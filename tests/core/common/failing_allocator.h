#pragma once

#include <cstddef>

// Replaces the allocation functions of the test program: counts them and lets one fail.
// For the calling thread only.
class AllocationWatch {
 public:
  // The allocation that comes after `successes` others fails, and all behind it.
  explicit AllocationWatch(std::size_t successes = static_cast<std::size_t>(-1));
  ~AllocationWatch();

  std::size_t GetCount() const;
  bool HasFailed() const;
};
