#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/unit.h"

namespace Por {

// Runs the processor on the units of a tree, level by level: the root, then all units one level
// below it (values of properties, elements of arrays) in their order, and so on. Traits are not
// walked. A tree of depth d is walked d + 1 times; nothing is allocated.
//
// A true for the root or for the value of a property ends the whole walk. A true for an element of
// an array ends only the walk of that array: its siblings and the deeper levels still follow.
void ForEachUnitByLevel(const View::Unit& unit, ItemProcessor<const View::Unit>& processor);

}  // namespace Por
