#pragma once

#include <cstddef>

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"

namespace Platform::Store {

// The object in a row. Null for one that can't be decoded; its failure is treated like that of a
// reader that raised.
Por::OwnedUnit DecodeObject(const unsigned char* data, std::size_t size,
                            const Por::Construction::UnitFactory& factory);

}  // namespace Platform::Store
