#pragma once

#include <optional>

#include "enterprise/common/por/unit.h"

namespace Platform::Store {

// The bound on the number of objects: the property "LimitOptions" of the options, which may be
// null. Throws when they are no composite, or the bound is no unsigned 32-bit number.
std::optional<unsigned int> GetLimit(const Por::View::Unit* options);

}  // namespace Platform::Store
