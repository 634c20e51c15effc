#pragma once

#include <array>
#include <cstdint>
#include <cstring>

namespace Common {

// Byte order of the three leading groups of a GUID in memory.
struct LittleEndian {
  static constexpr std::uint32_t Get32(const unsigned char* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
  }
  static constexpr std::uint16_t Get16(const unsigned char* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
  }
  static constexpr void Put32(unsigned char* bytes, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
  }
  static constexpr void Put16(unsigned char* bytes, std::uint16_t value) {
    bytes[0] = static_cast<unsigned char>(value);
    bytes[1] = static_cast<unsigned char>(value >> 8);
  }
};

// A 16-byte identification, held as its bytes in memory order:
//
//   offset 0  4 bytes  first group   (number in ByteOrder)
//   offset 4  2 bytes  second group  (number in ByteOrder)
//   offset 6  2 bytes  third group   (number in ByteOrder)
//   offset 8  8 bytes  eight single bytes, in text order
//
// A plain value; all zero by default. The text form is in core/common/number_text.h.
template <class ByteOrder>
struct GuidTemplate {
  std::array<unsigned char, 16> bytes{};

  constexpr std::uint32_t First() const { return ByteOrder::Get32(bytes.data()); }
  constexpr std::uint16_t Second() const { return ByteOrder::Get16(bytes.data() + 4); }
  constexpr std::uint16_t Third() const { return ByteOrder::Get16(bytes.data() + 6); }
  constexpr const unsigned char* Tail() const { return bytes.data() + 8; }

  constexpr void SetFirst(std::uint32_t value) { ByteOrder::Put32(bytes.data(), value); }
  constexpr void SetSecond(std::uint16_t value) { ByteOrder::Put16(bytes.data() + 4, value); }
  constexpr void SetThird(std::uint16_t value) { ByteOrder::Put16(bytes.data() + 6, value); }

  friend constexpr bool operator==(const GuidTemplate&, const GuidTemplate&) = default;
};

using Guid = GuidTemplate<LittleEndian>;

}  // namespace Common
