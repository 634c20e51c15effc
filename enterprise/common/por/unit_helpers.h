#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/unit.h"

// Questions and small changes about one unit: its traits, properties and elements.
// References and pointers that come out are borrowed from the tree and valid until it is changed.
// Only what makes a property, a trait, a copy or an error allocates, the lookup in a map whose keys
// are long, and the comparison of wide or deep units.

namespace Por::Util {

// The unit has a trait: any, of that name, of that name with an equal value (UnitValueEqual).
bool HasTraits(const View::Unit& unit);
bool HasTrait(const View::Unit& unit, const Name& name);
bool HasTraitWithValue(const View::Unit& unit, const Name& name, const View::Unit& value);

// The value of the one trait of that name. None throws ModuleError 0xFA001D, a second one
// 0xFA001C, also when the values are equal.
const View::Unit& GetUniqueTraitByName(const View::Unit& unit, const Name& name);

bool IsArray(const View::Unit& unit);
bool IsComposite(const View::Unit& unit);
bool HaveSameType(const View::Unit& a, const View::Unit& b);

// An array with a trait "Searchable".
bool IsSearchable(const View::Unit& unit);

// A composite with at least one property.
bool HasProperties(const View::Unit& unit);

// The property of that name, null if there is none. A unit that is no composite throws
// Common::Error 0xFA000A.
const View::Property* FindProperty(const View::Unit& composite, const Name& name);
Construction::Property* FindProperty(Construction::Unit& composite, const Name& name);

// The same, but no such property throws ModuleError 0xFA000D.
const View::Property& GetProperty(const View::Unit& composite, const Name& name);
Construction::Property& GetProperty(Construction::Unit& composite, const Name& name);

// Adds a property made through the factory, in place of one of that name. A unit that is no
// composite throws Common::Error 0xFA000A, a null value ModuleError 0xFA000B.
void AddProperty(Construction::Unit& composite, const Name& name, OwnedUnit value,
                 const Construction::UnitFactory& factory);
void AddPropertyCopy(Construction::Unit& composite, const Name& name, const View::Unit& value,
                     const Construction::UnitFactory& factory);
// Removes the property of that name, if there is one. A unit that is no composite throws
// Common::Error 0xFA000A.
void DeleteProperty(Construction::Unit& composite, const Name& name);

// Adds a trait made through the factory; one that the unit already has with an equal value is not
// stored twice. A null value throws ModuleError 0xFA000B.
void AddTrait(Construction::Unit& unit, const Name& name, OwnedUnit value,
              const Construction::UnitFactory& factory);

// Arrays. A unit that is no array has no elements and takes none: an element for it is destroyed.
void AppendToArray(Construction::Unit& unit, OwnedUnit element);
unsigned long long GetArraySize(const View::Unit& unit);
// Null on a unit that is no array; ModuleError 0xFA000F when `index` is not below the size.
const View::Unit* GetArrayElement(const View::Unit& unit, unsigned long long index);
Construction::Unit* GetArrayElement(Construction::Unit& unit, unsigned long long index);
// An element equals `unit`, with its traits (UnitEqual) or by value alone (UnitValueEqual).
bool ArrayContains(const View::Unit& array, const View::Unit& unit);
bool ArrayContainsValue(const View::Unit& array, const View::Unit& unit);

// What stands under `key`: in a composite the value of that property; in an array, taken for a map,
// "second" of the first element whose "first" is that text and which has a "second". Other
// elements are skipped. Null when there is none, on a unit of another kind and on a null unit.
const View::Unit* FindElement(const View::Unit* unit, const Name& key);
Construction::Unit* FindElement(Construction::Unit* unit, const Name& key);

}  // namespace Por::Util
