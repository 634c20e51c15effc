#pragma once

#include "core/common/error.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"

// The errors of a value that is of another kind than the code in hand can use, code 0xFA000A.
// Each maker first writes the call stack to the trace, at the information level and 32 frames at
// most; without a sink for that level nothing is walked. Visitors throw the result as it is, typed
// reads and writes as a ModuleError.

namespace Por::Util::Detail {

Common::Error MakeTypeMismatchError();

// Names the two kinds by the words of their type indexes.
Common::Error MakeTypeMismatchError(unsigned int expected, unsigned int actual);

Common::Error MakePropertyTypeMismatchError(const Name& name, unsigned int expected,
                                            unsigned int actual);

}  // namespace Por::Util::Detail
