#pragma once

#include "core/common/error.h"
#include "core/common/unix/trace.h"

namespace Common {

// Traces an error: module and code are the two halves of its code; the text is that of its chain,
// with `level` told in the first record. Nothing is made into text unless a sink wants it. Without
// memory for the text, or when a sink throws, the trace is dropped.
// The forms for plain text are in core/common/unix/trace.h.
void Trace(unsigned int level, const Error& error) noexcept;

}  // namespace Common
