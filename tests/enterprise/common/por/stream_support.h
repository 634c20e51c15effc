#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
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

// Makes in-memory units without being the in-memory factory itself, so that nothing takes a shorter
// way because it knows the factory.
class PlainFactory : public Construction::UnitFactory {
 public:
  OwnedUnit CreateNil() const override { return factory_.CreateNil(); }
#define POR_CREATE(index, Word, Value, Argument)          \
  OwnedUnit Create##Word(Argument value) const override { \
    return factory_.Create##Word(value);                  \
  }
  POR_SCALAR_KINDS(POR_CREATE)
#undef POR_CREATE
#define POR_CREATE(index, Word, Value, Argument)                 \
  OwnedUnit Create##Word(const Argument& value) const override { \
    return factory_.Create##Word(value);                         \
  }
  POR_COMPLEX_KINDS(POR_CREATE)
#undef POR_CREATE
  OwnedUnit CreateArray() const override {
    return factory_.CreateArray();
  }
  OwnedUnit CreateComposite() const override {
    return factory_.CreateComposite();
  }
  OwnedTrait CreateTrait(const Name& name, OwnedUnit value) const override {
    return factory_.CreateTrait(name, std::move(value));
  }
  OwnedProperty CreateProperty(const Name& name, OwnedUnit value) const override {
    return factory_.CreateProperty(name, std::move(value));
  }

 private:
  Construction::InMemoryUnitFactory factory_;
};

// What reading `bytes` comes to, in one text: the stream of the unit, "none", or the error.
inline std::string Outcome(const Bytes& bytes, const Construction::UnitFactory& factory) {
  try {
    const OwnedUnit unit = Util::ReadUnitBlob(bytes, factory);
    return unit == nullptr ? "none" : ToHex(Write(*unit));
  } catch (const Common::Error& error) {
    const Common::String message = error.GetMessage();
    return std::to_string(error.GetCode()) + ": " + std::string(message.begin(), message.end());
  }
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
