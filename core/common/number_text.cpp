#include "core/common/number_text.h"

#include <charconv>
#include <cstdio>
#include <limits>

#include "core/common/unix/program_path.h"
#include "core/common/unix/safe_assert.h"

namespace Common {

namespace {

constexpr char16_t kBlank = u' ';

// The value of a letter or digit of `0` or above, 10 and more for letters; too large for any radix
// if it is neither.
unsigned int GetDigit(char16_t unit) {
  if (unit <= u'9') return unit - static_cast<unsigned int>(u'0');
  if (unit >= u'A' && unit <= u'Z') return unit - static_cast<unsigned int>(u'A') + 10;
  if (unit >= u'a' && unit <= u'z') return unit - static_cast<unsigned int>(u'a') + 10;
  return std::numeric_limits<unsigned int>::max();
}

// Whether the last character that is no blank is the mark of hexadecimal text. A text of one unit
// is not asked.
bool EndsInMark(const char16_t* text) {
  if (text[1] == 0) return false;
  char16_t last = 0;
  for (; *text != 0; ++text) {
    if (*text != kBlank) last = *text;
  }
  return last == u'h' || last == u'H';
}

std::string FormatNumber(std::uint64_t number, int radix, const char* prefix) {
  char digits[20];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, number, radix);
  return std::string(prefix).append(digits, end.ptr);
}

}  // namespace

bool ParseNumber(std::uint64_t* out, const char16_t* text, std::uint8_t radix) {
  const bool takes_marks = radix == 10;
  std::uint64_t base = radix;
  if (text == nullptr) text = u"";
  if (takes_marks) {
    if (*text == 0) return false;
    if (EndsInMark(text)) base = 16;
  }
  while (*text == kBlank) ++text;
  *out = 0;
  bool has_digits = false;
  bool has_prefix = false;
  bool is_closed = false;  // by a blank or by the mark at the end: only blanks may follow
  for (; *text != 0; ++text) {
    const char16_t unit = *text;
    if (unit == kBlank) {
      is_closed = true;
      continue;
    }
    if (is_closed || unit < u'0') return false;
    if (takes_marks && (unit == u'h' || unit == u'H')) {
      if (has_prefix) return false;
      is_closed = true;
      continue;
    }
    if (takes_marks && (unit == u'x' || unit == u'X')) {
      if (!has_digits || *out != 0 || has_prefix) return false;
      has_prefix = true;
      has_digits = false;
      base = 16;
      continue;
    }
    const unsigned int digit = GetDigit(unit);
    if (digit >= base) return false;
    if (*out > std::numeric_limits<std::uint64_t>::max() / base) return false;
    *out *= base;
    if (*out > std::numeric_limits<std::uint64_t>::max() - digit) return false;
    *out += digit;
    has_digits = true;
  }
  return has_digits;
}

std::string NumberToDecimal(std::uint64_t number) {
  return FormatNumber(number, 10, "");
}

std::string NumberToHex(std::uint64_t number) {
  return FormatNumber(number, 16, "0x");
}

char* Base64Encode(char* out, const unsigned char* begin, const unsigned char* end,
                   const char* alphabet, bool pad) {
  for (; end - begin >= 3; begin += 3) {
    const unsigned int bits = static_cast<unsigned int>(begin[0]) << 16 |
                              static_cast<unsigned int>(begin[1]) << 8 | begin[2];
    *out++ = alphabet[bits >> 18];
    *out++ = alphabet[bits >> 12 & 63];
    *out++ = alphabet[bits >> 6 & 63];
    *out++ = alphabet[bits & 63];
  }
  if (begin == end) return out;
  const bool has_second = end - begin == 2;
  const unsigned int bits = static_cast<unsigned int>(begin[0]) << 8 | (has_second ? begin[1] : 0u);
  *out++ = alphabet[bits >> 10];
  *out++ = alphabet[bits >> 4 & 63];
  if (has_second) *out++ = alphabet[bits << 2 & 63];
  if (pad) {
    *out++ = '=';
    if (!has_second) *out++ = '=';
  }
  return out;
}

void GuidToChars(char* buffer, const Guid& guid) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  // Memory order of the text's bytes; the groups are little-endian.
  constexpr int kOrder[] = {3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11, 12, 13, 14, 15};
  for (const int index : kOrder) {
    if (index < 0) {
      *buffer++ = '-';
      continue;
    }
    const unsigned char byte = guid.bytes[static_cast<std::size_t>(index)];
    *buffer++ = kDigits[byte >> 4];
    *buffer++ = kDigits[byte & 15];
  }
  *buffer = '\0';
}

std::string GuidToString(const Guid& guid) {
  char text[37];
  GuidToChars(text, guid);
  return std::string(text, 36);
}

bool GuidFromString(Guid& out, const char* t) {
  SAFE_ASSERT(t);
  if (t == nullptr) return false;
  unsigned int first;
  unsigned short second;
  unsigned short third;
  unsigned int tail[8];
  if (std::sscanf(t, "%08X-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X", &first, &second, &third,
                  &tail[0], &tail[1], &tail[2], &tail[3], &tail[4], &tail[5], &tail[6],
                  &tail[7]) != 11) {
    return false;
  }
  out.SetFirst(first);
  out.SetSecond(second);
  out.SetThird(third);
  for (std::size_t i = 0; i < 8; ++i) out.bytes[8 + i] = static_cast<unsigned char>(tail[i]);
  return true;
}

String GetProgramPathWide() {
  const std::string path = GetProgramPath();
  String wide;
  wide.reserve(path.size());
  for (const char byte : path) wide.push_back(EscapeByte(static_cast<unsigned char>(byte)));
  return wide;
}

}  // namespace Common
