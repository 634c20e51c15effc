#pragma once

#include <algorithm>
#include <initializer_list>
#include <utility>
#include <vector>

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"

// Units in one expression: Composite("a", DWord(1), "b", Array(Text(u"x"), Nil())).

namespace Por::Test {

inline const Construction::UnitFactory& Factory() {
  return *GetStaticUnitFactory();
}

inline OwnedUnit Nil() {
  return Factory().CreateNil();
}
// Boolean to Double.
#define POR_MAKE(index, Word, Value, Argument) \
  inline OwnedUnit Word(Argument value) {      \
    return Factory().Create##Word(value);      \
  }
POR_SCALAR_KINDS(POR_MAKE)
#undef POR_MAKE
inline OwnedUnit Blob(const std::vector<unsigned char>& value) {
  return Factory().CreateBlob(value);
}
// The bytes from the first on; the rest is 0.
inline OwnedUnit Guid(std::initializer_list<unsigned char> bytes) {
  Common::Guid guid;
  std::copy(bytes.begin(), bytes.end(), guid.bytes.begin());
  return Factory().CreateGuid(guid);
}
inline OwnedUnit Text(const Common::String& value) {
  return Factory().CreateString(value);
}
inline OwnedUnit ErrorUnit(const Common::Error& value) {
  return Factory().CreateError(value);
}

template <class... Elements>
OwnedUnit Array(Elements... elements) {
  OwnedUnit array = Factory().CreateArray();
  (Util::AppendToArray(*array, std::move(elements)), ...);
  return array;
}

inline void AddAll(Construction::Unit&) {}
template <class... Rest>
void AddAll(Construction::Unit& composite, const Name& name, OwnedUnit value, Rest&&... rest) {
  Util::AddProperty(composite, name, std::move(value), Factory());
  AddAll(composite, std::forward<Rest>(rest)...);
}

// Names (literals) and values in turn.
template <class... NamesAndValues>
OwnedUnit Composite(NamesAndValues&&... names_and_values) {
  OwnedUnit composite = Factory().CreateComposite();
  AddAll(*composite, std::forward<NamesAndValues>(names_and_values)...);
  return composite;
}

inline OwnedUnit With(OwnedUnit unit, const Name& trait, OwnedUnit value) {
  Util::AddTrait(*unit, trait, std::move(value), Factory());
  return unit;
}

template <class... Units>
std::vector<OwnedUnit> List(Units... units) {
  std::vector<OwnedUnit> list;
  (list.push_back(std::move(units)), ...);
  return list;
}

// In the order of the type index; the values fall.
inline std::vector<OwnedUnit> OneOfEachKind() {
  return List(Nil(), Boolean(true), Byte(9), SByte(8), Word(7), SWord(6), DWord(5), SDWord(4),
              QWord(3), SQWord(2), Double(1), Blob({}), Guid({}), Text(u""), ErrorUnit({}), Array(),
              Composite());
}

}  // namespace Por::Test
