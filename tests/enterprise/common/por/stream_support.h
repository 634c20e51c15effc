#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_constructor.h"
#include "enterprise/common/por/unit_factory.h"

// Units and streams as texts that show their own difference.
namespace Por::Streams {

using Bytes = std::vector<unsigned char>;

// "55 43 45": bytes in hexadecimal; blanks don't count.
inline Bytes FromHex(std::string_view text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text) {
    if (c == ' ') continue;
    digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<unsigned char>(std::stoul(digits, nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

inline std::string ToHex(const Bytes& bytes) {
  std::string text;
  for (const unsigned char byte : bytes) {
    char buffer[4];
    std::snprintf(buffer, sizeof buffer, "%02x", static_cast<unsigned int>(byte));
    text += buffer;
  }
  return text;
}

inline Bytes Write(const View::Unit& unit) {
  Bytes bytes;
  Util::WriteUnitBlob(unit, bytes);
  return bytes;
}

inline OwnedUnit Read(const Bytes& bytes) {
  return Util::ReadUnitBlob(bytes, *GetStaticUnitFactory());
}

// The unit that `calls` makes of a UnitConstructor.
template <class Calls>
OwnedUnit Make(Calls calls) {
  const Util::UnitConstructor unit(*GetStaticUnitFactory());
  calls(unit);
  return unit.TakeResult();
}

// The code of what `action` raises, 0 if it raises nothing.
template <class Action>
std::uint32_t CodeOf(Action action) {
  try {
    action();
  } catch (const Common::Error& error) {
    return error.GetCode();
  }
  return 0;
}

}  // namespace Por::Streams
