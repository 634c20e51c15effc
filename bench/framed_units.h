#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

// Unit streams one behind the other, each behind its length: u32, little-endian.
namespace Bench {

// Views into `data`.
inline std::vector<std::string_view> SplitFrames(std::string_view data) {
  std::vector<std::string_view> frames;
  while (data.size() >= sizeof(std::uint32_t)) {
    std::uint32_t size;
    std::memcpy(&size, data.data(), sizeof size);
    data.remove_prefix(sizeof size);
    frames.push_back(data.substr(0, size));
    data.remove_prefix(frames.back().size());
  }
  return frames;
}

inline double CountBytes(const std::vector<std::string_view>& frames) {
  std::size_t sum = 0;
  for (const std::string_view frame : frames) sum += frame.size();
  return static_cast<double>(sum);
}

inline const unsigned char* Bytes(std::string_view frame) {
  return reinterpret_cast<const unsigned char*>(frame.data());
}

}  // namespace Bench
