#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"
#include "tests/enterprise/common/por/thrown.h"

// Units and streams as texts that show their own difference.
namespace Por::Streams {

using Bytes = std::vector<unsigned char>;

// "55 43 45": bytes in hexadecimal; blanks don't count. "Pa" is the letter of a property and its
// name "a", 50 0D 02000000 6100, and "Ta" that of a trait, with 54.
inline Bytes FromHex(std::string_view text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text) {
    if (c == ' ') continue;
    digits += c;
    if (digits.size() == 2 && (digits[0] == 'P' || digits[0] == 'T')) {
      const auto letter = static_cast<unsigned char>(c);
      const auto tag = static_cast<unsigned char>(digits[0]);
      bytes.insert(bytes.end(), {tag, 0x0D, 2, 0, 0, 0, letter, 0});
      digits.clear();
    }
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
// way because it knows the factory. Counts what it makes.
class PlainFactory : public Construction::UnitFactory {
 public:
  mutable unsigned int made = 0;

  OwnedUnit CreateNil() const override { return ++made, factory_.CreateNil(); }
#define POR_CREATE(index, Word, Value, Argument)          \
  OwnedUnit Create##Word(Argument value) const override { \
    return ++made, factory_.Create##Word(value);          \
  }
  POR_SCALAR_KINDS(POR_CREATE)
#undef POR_CREATE
#define POR_CREATE(index, Word, Value, Argument)                 \
  OwnedUnit Create##Word(const Argument& value) const override { \
    return ++made, factory_.Create##Word(value);                 \
  }
  POR_COMPLEX_KINDS(POR_CREATE)
#undef POR_CREATE
  OwnedUnit CreateArray() const override {
    return ++made, factory_.CreateArray();
  }
  OwnedUnit CreateComposite() const override {
    return ++made, factory_.CreateComposite();
  }
  OwnedTrait CreateTrait(const Name& name, OwnedUnit value) const override {
    return ++made, factory_.CreateTrait(name, std::move(value));
  }
  OwnedProperty CreateProperty(const Name& name, OwnedUnit value) const override {
    return ++made, factory_.CreateProperty(name, std::move(value));
  }

 private:
  Construction::InMemoryUnitFactory factory_;
};

// What reading `bytes` comes to, in one text: the stream of the unit, "" for none, or the error.
inline std::string Outcome(const Bytes& bytes, const Construction::UnitFactory& factory) {
  OwnedUnit unit;
  const Test::Thrown thrown = Test::Catch([&] { unit = Util::ReadUnitBlob(bytes, factory); });
  if (thrown.error != "nothing") return thrown.error;
  return unit == nullptr ? "" : ToHex(Write(*unit));
}

// The same by both factories, which must agree.
inline std::string Outcome(const Bytes& bytes) {
  const std::string outcome = Outcome(bytes, *GetStaticUnitFactory());
  EXPECT_EQ(Outcome(bytes, PlainFactory()), outcome);
  return outcome;
}

}  // namespace Por::Streams
