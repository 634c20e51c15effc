#pragma once

#include "core/common/time/time_format.h"

namespace Common {

// The module that holds all that needs ICU: linking ICU alone costs a process more time at start
// than a small report takes.
inline constexpr char kTimeFormatModule[] = "objprobe-time.so";

// Its one function: gives an owned format that is never null.
using CreateTimeFormatFunction = TimeFormat*(int style, int what);
inline constexpr char kCreateTimeFormatSymbol[] = "ObjprobeCreateTimeFormat";

}  // namespace Common
