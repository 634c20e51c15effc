#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"

namespace Platform::Store {

// What an update changed in an object, as a unit. It is never null.
//
// Of two composites, a composite with the traits that the object has now and a property for each
// one that differs:
//
// - one that is new or has changed, with its value as it is now; where it was a composite and still
//   is one, with the difference of the two by the same rules;
// - one that is gone, with a nil value that carries a nil trait "Nil". A property that holds just
//   that can't be told from one that is gone.
//
// Of other values, the unit as it is now. So where only values have changed, assigning the
// difference to the object as it was (AssignUnit) gives the object as it is.
//
// Equal is what UnitEqual says. The cost is polynomial in the nesting.
Por::OwnedUnit MakeObjectDiff(const Por::View::Unit& before, const Por::View::Unit& after,
                              const Por::Construction::UnitFactory& factory);

}  // namespace Platform::Store
