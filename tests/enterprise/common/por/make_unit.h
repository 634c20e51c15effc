#pragma once

#include <utility>

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
inline OwnedUnit Bool(bool value) {
  return Factory().CreateBoolean(value);
}
inline OwnedUnit Word(unsigned short value) {
  return Factory().CreateWord(value);
}
inline OwnedUnit DWord(unsigned int value) {
  return Factory().CreateDWord(value);
}
inline OwnedUnit QWord(unsigned long long value) {
  return Factory().CreateQWord(value);
}
inline OwnedUnit Double(double value) {
  return Factory().CreateDouble(value);
}
inline OwnedUnit Text(const Common::String& value) {
  return Factory().CreateString(value);
}
inline OwnedUnit Guid(unsigned char first) {
  Common::Guid guid;
  guid.bytes[0] = first;
  return Factory().CreateGuid(guid);
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

}  // namespace Por::Test
