#pragma once

#include <string>

namespace Common {

// Text inside the system: UTF-16 code units, any value allowed, 0 included.
// Conversions from and to UTF-8 are in core/common/text.h.
using String = std::u16string;

}  // namespace Common
