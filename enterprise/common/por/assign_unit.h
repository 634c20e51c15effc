#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"

namespace Por::Util {

// Assigns the value of `source` to `target` in place. Strict about shape: everything
// is checked before anything is changed, so a refused assignment changes nothing.
//
// The target must have each trait of the source and, of a composite, each property, at every level
// below composites; properties that only the target has stay. Values must be of the same kind,
// without any conversion. An array is replaced by copies of the source's elements, whatever they
// are. Traits are never changed. `source` may be the target, lie inside it, or hold it.
//
// Throws ModuleError: 0xFA0012 for traits, 0xFA0011 for kinds, 0xFA0010 for properties;
// std::bad_alloc, which may leave some of the values set.
void AssignUnit(Modification::Unit& target, const View::Unit& source,
                const Construction::UnitFactory& factory);

}  // namespace Por::Util
