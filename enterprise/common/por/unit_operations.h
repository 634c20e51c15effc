#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"

// Equality, order and copy of whole units. Units have none of these built in. All of them take the
// traits of a unit to come in the order of their names, as Traits::ForEach promises.
// All are pure functions of the trees; cost is polynomial in their nesting.

namespace Por::Util {

// The values are equal; the traits of `a` and `b` themselves do not count, those below do.
bool UnitValueEqual(const View::Unit& a, const View::Unit& b);

// Traits and values are equal. A NaN equals nothing, but a unit is equal to itself.
bool UnitEqual(const View::Unit& a, const View::Unit& b);

// Each trait of `a` has a trait of the same name and an equal value in `b`; one partner in `b` may
// serve several traits of `a`.
bool TraitsIncluded(const View::Unit& a, const View::Unit& b);

// -1, 0 or 1. Not transitive on all composites, and 1 both ways with a NaN.
int Compare(const View::Unit& a, const View::Unit& b);

// Two different objects of which `a` compares as -1.
bool Less(const View::Unit& a, const View::Unit& b);

// Order of two errors: an absent one first, then code, then the next errors, then parameters.
int CompareErrors(const Common::Error& a, const Common::Error& b);

// A deep copy, traits at every level included. Throws what the factory throws.
OwnedUnit CopyUnit(const View::Unit& unit, const Construction::UnitFactory& factory);

// Type index of the unit's value, 0 to 16.
unsigned int GetValueTypeIndex(const View::Unit& unit);

// The word that messages print for a type index; above 16 the number in decimal.
Common::String GetTypeName(unsigned int index);

}  // namespace Por::Util
