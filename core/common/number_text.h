#pragma once

#include <cstdint>
#include <string>

#include "core/common/guid.h"
#include "core/common/string.h"

namespace Common {

// Text forms of numbers, identifications and raw bytes. Threads: any.

// Reads an unsigned number; blanks (U+0020 only) may stand around it. Radix 10 also takes
// hexadecimal text that says so: "0x1F" or "1Fh". Any other radix takes its digits and no marks.
// False if the text is no such number or exceeds 64 bits. `*out` is worked on while reading: after
// a failure it holds what was read up to there, and it is untouched by an empty text in radix 10.
// A null text is an empty one.
bool ParseNumber(std::uint64_t* out, const char16_t* text, std::uint8_t radix);

// "%llu"
std::string NumberToDecimal(std::uint64_t number);
// "0x%llx"
std::string NumberToHex(std::uint64_t number);

// The standard alphabet of base64 (RFC 4648).
inline constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Writes the bytes in base64, four characters for three bytes, without line breaks and without a 0
// at the end; returns the end of what was written. `alphabet` has 64 characters. `pad` fills the
// last four characters with "=".
char* Base64Encode(char* out, const unsigned char* begin, const unsigned char* end,
                   const char* alphabet, bool pad);

// The text of a GUID, 36 characters in upper case: "01234567-89AB-CDEF-0123-456789ABCDEF".
// `buffer` takes 37 bytes.
void GuidToChars(char* buffer, const Guid& guid);
std::string GuidToString(const Guid& guid);
// Reads it, in either case; what stands behind it is ignored. Groups may be shorter than their
// width. False leaves `out` unchanged. A null text is an assertion report and false.
bool GuidFromString(Guid& out, const char* text);

// The byte escape: a unit of the private use area (0xF880 to 0xF8FF) stands for the raw byte of
// 0x80 or above that is its low byte. Only in strings that hold file names.
constexpr char16_t EscapeByte(unsigned char byte) {
  return static_cast<char16_t>(byte < 0x80 ? byte : 0xF800 | byte);
}
constexpr bool IsEscapedByte(char16_t unit) {
  return (unit & 0xFF80) == 0xF880;
}

// GetProgramPath, byte for byte in the byte escape. Empty if the path can't be found.
String GetProgramPathWide();

}  // namespace Common
