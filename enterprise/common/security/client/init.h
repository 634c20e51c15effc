#pragma once

#include <cstdint>

#include "core/common/error.h"
#include "core/common/line_tag.h"

namespace Security {

// The library failed and has no last error.
inline constexpr std::uint32_t kInvalidResultCode = 0x2740004;

// Starts the security client; `tag` is the place that asks for it. Once, on the main thread, before
// the first connection; nothing stops the client again.
// Returns the library's last error, unchanged, or kInvalidResultCode. A last error that can't be
// read holds no record, so that the start counts as a success.
Common::Error Initialize(const Common::LineTag& tag);

}  // namespace Security
