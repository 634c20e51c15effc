#pragma once

#include "core/common/error.h"
#include "core/common/unix/trace.h"

namespace Common {

// Traces an error: module and code are the two halves of its code; the text is that of its chain,
// with `level` told in the first record. Nothing is made into text unless a sink wants it. Without
// memory for the text, or in a sink, the trace is dropped: those who trace a failure must go on.
// The forms for plain text are in core/common/unix/trace.h.
void Trace(unsigned int level, const Error& error) noexcept;

}  // namespace Common
