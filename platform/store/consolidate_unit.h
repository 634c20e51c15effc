#pragma once

#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/unit_factory.h"

namespace Platform::Store {

// Brings two descriptions of one thing together, the later one in `given`:
//
// - Where one of the two is nil, the other stands, with its own traits.
// - Two composites become one with the properties of both; those that both have are consolidated.
// - Otherwise `given` stands.
//
// But for the first case the traits of both stand, except that a `PrimaryKey` of `given` takes the
// place of those stored at the same place: a thing has one key, though its words may differ.
// Nothing is demanded of the shapes, so it fails on what the factory throws only. The result nests
// no deeper than the deeper of the two.
Por::OwnedUnit ConsolidateUnit(Por::OwnedUnit stored, const Por::View::Unit& given,
                               const Por::Construction::UnitFactory& factory);

}  // namespace Platform::Store
