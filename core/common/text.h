#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "core/common/string.h"

namespace Common {

// Conversions between UTF-16 and UTF-8. They never fail outright: what is not valid is replaced by
// U+FFFD or let through, as told below. `out` is cleared first and must not hold `text`; nothing
// but a failed allocation throws. A null `text` is an empty one. Threads: any.
//
// Reading stops at the first 0 and after `length` units, whichever comes first, also when `length`
// is given. No page of memory behind that place is touched.

// UTF-16 to UTF-8. A surrogate without its partner becomes three bytes like any other unit.
// Always true.
bool ToUtf8(std::string& out, const char16_t* text,
            std::size_t length = static_cast<std::size_t>(-1));

// UTF-8 to UTF-16. True if the input was clean. Values in more bytes than needed are stored and
// make the result false; surrogate values are stored and leave it. A byte that begins no complete
// sequence becomes one U+FFFD by itself, a four-byte value above 0x10FFFF one U+FFFD altogether;
// both make the result false.
bool ToUtf16(String& out, const char* text, std::size_t length = static_cast<std::size_t>(-1));

// ToUtf16 up to the first 0, without its result.
String Utf8ToString(const char* text);

// Each byte zero-extended, nothing decoded, ended by a 0. Null gives null.
std::unique_ptr<char16_t[]> WidenAscii(const char* text);
// Each unit cut to its low byte, ended by a 0. Null gives null.
std::unique_ptr<char[]> NarrowLowBytes(const char16_t* text);

}  // namespace Common
