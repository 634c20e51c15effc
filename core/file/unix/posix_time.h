#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

namespace Core {

// Times of files are milliseconds since 1 January 1970; what lies before wraps around.

inline timeval MakeTimeval(std::uint64_t milliseconds) noexcept {
  const auto time = static_cast<std::int64_t>(milliseconds);
  const std::int64_t rest = time % 1000 + (time % 1000 < 0 ? 1000 : 0);
  timeval result{};
  result.tv_sec = time / 1000 - (time % 1000 < 0 ? 1 : 0);
  result.tv_usec = rest * 1000;
  return result;
}

// Rounded down.
inline std::uint64_t ToMilliseconds(const timespec& time) noexcept {
  return static_cast<std::uint64_t>(time.tv_sec) * 1000 +
         static_cast<std::uint64_t>(time.tv_nsec) / 1'000'000;
}

}  // namespace Core
