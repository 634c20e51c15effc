#pragma once

#include <cstdint>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/string.h"

namespace Dml {

inline constexpr std::uint32_t kMissingPartCode = 0xFC0031;

// "DML: Unproper use. Missing {0}."
Common::Error MakeMissingPartError(const Common::String& part, const Common::LineTag& tag);

}  // namespace Dml
