#pragma once

#include <cstdio>

namespace Common {

// Guarded forms of close and fclose; the system closes descriptors and streams only through these.
// They give the result of the C library, unless it tells that the caller closed what wasn't its
// own: close with EBADF, or any failure of fclose. VELORIN_SAFE_CLOSE, read at start, decides what
// happens then: a value with "break" traps, with "abort" ends the process, any other value gives
// the result. Unset is "abort".
int SafeClose(int descriptor) noexcept;
int SafeFClose(std::FILE* file) noexcept;

}  // namespace Common
