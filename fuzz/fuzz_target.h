#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// What a fuzz target is made of.

// Reads the bytes and returns 0; what must not be ends the process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace Fuzz {

// Assertions about the input are expected; written out they would only cost time.
inline const int kQuiet = ::setenv("VELORIN_SAFE_ASSERT", "0", 1);

inline void Require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "Does not hold: %s\n", property);
  std::abort();
}

inline void RequireEqual(const std::string& left, const std::string& right, const char* property) {
  if (left == right) return;
  std::fprintf(stderr, "Does not hold: %s\n%s\n%s\n", property, left.c_str(), right.c_str());
  std::abort();
}

}  // namespace Fuzz
