#pragma once

#include "core/common/guid.h"
#include "enterprise/common/por/unit.h"

namespace Por::Util {

// MD5 (RFC 1321) of the unit's binary stream, the one that WriteUnitBlob gives; its 16 bytes are
// the memory of the result. Traits count, at every level, as do the order of properties and the
// kinds of values. A caller that wants something left out digests a view that hides it. Threads:
// any; raises what the unit's accessors raise.
Common::Guid ComputeUnitDigest(const View::Unit& unit);

}  // namespace Por::Util
