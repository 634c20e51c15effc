#include "core/common/text.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace Common {

namespace {

constexpr char16_t kReplacement = 0xFFFD;

// Text is converted piece by piece through a buffer on the stack, so that `out` is neither filled
// with zeros first nor larger than it needs to be when the text is short. A sequence that begins in
// a piece is read to its end, hence the room behind a piece; it also takes the surplus of the
// stores that are wider than what they convert.
constexpr std::size_t kPiece = 2048;
constexpr std::size_t kRoom = 32;

// Number of units before the first 0, at most `length`. Nothing behind that 0 is read, so the steps
// are single units: a caller may give a length beyond the end of his array.
std::size_t GetLength(const char16_t* text, std::size_t length) {
  std::size_t count = 0;
  while (length - count >= 4) {
    const char16_t* at = text + count;
    if (at[0] == 0) return count;
    if (at[1] == 0) return count + 1;
    if (at[2] == 0) return count + 2;
    if (at[3] == 0) return count + 3;
    count += 4;
  }
  while (count < length && text[count] != 0) ++count;
  return count;
}

// Widens the ASCII bytes that `from` begins with, and moves both pointers behind them. Reads below
// `end` only; may write, without moving, up to 16 units at `to`.
void WidenAsciiRun(const char*& from, const char* end, char16_t*& to) {
#ifdef __SSE2__
  const __m128i zero = _mm_setzero_si128();
  while (end - from >= 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    const auto high = static_cast<unsigned int>(_mm_movemask_epi8(block));
    auto* target = reinterpret_cast<__m128i*>(to);
    _mm_storeu_si128(target, _mm_unpacklo_epi8(block, zero));
    _mm_storeu_si128(target + 1, _mm_unpackhi_epi8(block, zero));
    const int run = high == 0 ? 16 : std::countr_zero(high);
    from += run;
    to += run;
    if (run != 16) return;
  }
  if (end - from >= 8) {
    const __m128i block = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(from));
    const auto high = static_cast<unsigned int>(_mm_movemask_epi8(block));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm_unpacklo_epi8(block, zero));
    const int run = high == 0 ? 8 : std::countr_zero(high);
    from += run;
    to += run;
    if (run != 8) return;
  }
#else
  while (end - from >= 8) {
    std::uint64_t block;
    std::memcpy(&block, from, 8);
    if ((block & 0x8080808080808080u) != 0) break;
    for (int i = 0; i < 8; ++i) to[i] = static_cast<unsigned char>(from[i]);
    from += 8;
    to += 8;
  }
#endif
  while (from != end && static_cast<unsigned char>(*from) < 0x80) {
    *to++ = static_cast<unsigned char>(*from++);
  }
}

// The reverse: narrows the units below 0x80 that `from` begins with. May write up to 16 bytes.
void NarrowAsciiRun(const char16_t*& from, const char16_t* end, char*& to) {
#ifdef __SSE2__
  const __m128i zero = _mm_setzero_si128();
  const __m128i above = _mm_set1_epi16(static_cast<short>(0xFF80));
  while (end - from >= 16) {
    const auto* source = reinterpret_cast<const __m128i*>(from);
    const __m128i first = _mm_loadu_si128(source);
    const __m128i second = _mm_loadu_si128(source + 1);
    const __m128i first_ascii = _mm_cmpeq_epi16(_mm_and_si128(first, above), zero);
    const __m128i second_ascii = _mm_cmpeq_epi16(_mm_and_si128(second, above), zero);
    const auto ascii =
        static_cast<unsigned int>(_mm_movemask_epi8(_mm_packs_epi16(first_ascii, second_ascii)));
    // Saturates what is not ASCII; those bytes lie behind the run and are written again.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(first, second));
    const int run = std::countr_one(ascii);
    from += run;
    to += run;
    if (run != 16) return;
  }
  if (end - from >= 8) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    const __m128i is_ascii = _mm_cmpeq_epi16(_mm_and_si128(block, above), zero);
    const auto ascii =
        static_cast<unsigned int>(_mm_movemask_epi8(_mm_packs_epi16(is_ascii, zero)));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(block, zero));
    const int run = std::countr_one(ascii);
    from += run;
    to += run;
    if (run != 8) return;
  }
#endif
  while (from != end && *from < 0x80) *to++ = static_cast<char>(*from++);
}

// Whether `count` continuation bytes follow the lead at `from`. They are looked at one by one.
bool IsContinued(const unsigned char* from, const unsigned char* end, int count) {
  if (end - from <= count) return false;
  for (int i = 1; i <= count; ++i) {
    if ((from[i] & 0xC0) != 0x80) return false;
  }
  return true;
}

// Decodes what stands at `from`, a byte of 0x80 or above. False if it wasn't clean.
bool DecodeSequence(const char*& text, const char* text_end, char16_t*& to) {
  const auto* from = reinterpret_cast<const unsigned char*>(text);
  const auto* end = reinterpret_cast<const unsigned char*>(text_end);
  const unsigned int lead = from[0];
  if ((lead & 0xE0) == 0xC0 && IsContinued(from, end, 1)) {
    const unsigned int value = (lead & 0x1F) << 6 | (from[1] & 0x3Fu);
    *to++ = static_cast<char16_t>(value);
    text += 2;
    return value >= 0x80;
  }
  if ((lead & 0xF0) == 0xE0 && IsContinued(from, end, 2)) {
    const unsigned int value = (lead & 0x0F) << 12 | (from[1] & 0x3Fu) << 6 | (from[2] & 0x3Fu);
    *to++ = static_cast<char16_t>(value);
    text += 3;
    return value >= 0x800;
  }
  if ((lead & 0xF8) == 0xF0 && IsContinued(from, end, 3)) {
    const unsigned int value =
        (lead & 0x07) << 18 | (from[1] & 0x3Fu) << 12 | (from[2] & 0x3Fu) << 6 | (from[3] & 0x3Fu);
    text += 4;
    if (value >= 0x110000) {
      *to++ = kReplacement;
      return false;
    }
    if (value < 0x10000) {
      *to++ = static_cast<char16_t>(value);
      return false;
    }
    *to++ = static_cast<char16_t>((value - 0x10000) >> 10 | 0xD800);
    *to++ = static_cast<char16_t>((value & 0x3FF) | 0xDC00);
    return true;
  }
  *to++ = kReplacement;
  ++text;
  return false;
}

// Encodes what stands at `from`, a unit of 0x80 or above.
void EncodeUnit(const char16_t*& from, const char16_t* end, char*& to) {
  const unsigned int unit = *from++;
  if (unit < 0x800) {
    *to++ = static_cast<char>(0xC0 | unit >> 6);
  } else if (unit >= 0xD800 && unit <= 0xDBFF && from != end && *from >= 0xDC00 &&
             *from <= 0xDFFF) {
    const unsigned int value = ((unit & 0x3FF) << 10 | (*from++ & 0x3FFu)) + 0x10000;
    *to++ = static_cast<char>(0xF0 | value >> 18);
    *to++ = static_cast<char>(0x80 | (value >> 12 & 0x3F));
    *to++ = static_cast<char>(0x80 | (value >> 6 & 0x3F));
    *to++ = static_cast<char>(0x80 | (value & 0x3F));
    return;
  } else {
    *to++ = static_cast<char>(0xE0 | unit >> 12);
    *to++ = static_cast<char>(0x80 | (unit >> 6 & 0x3F));
  }
  *to++ = static_cast<char>(0x80 | (unit & 0x3F));
}

}  // namespace

bool ToUtf8(std::string& out, const char16_t* text, std::size_t length) {
  out.clear();
  if (text == nullptr) return true;
  length = GetLength(text, length);
  if (length > kPiece) out.reserve(length);
  char buffer[3 * kPiece + kRoom];
  const char16_t* const end = text + length;
  while (text != end) {
    const char16_t* const stop = text + std::min<std::ptrdiff_t>(end - text, kPiece);
    char* to = buffer;
    while (text < stop) {
      NarrowAsciiRun(text, stop, to);
      while (text < stop && *text >= 0x80) EncodeUnit(text, end, to);
    }
    out.append(buffer, to);
  }
  return true;
}

bool ToUtf16(String& out, const char* text, std::size_t length) {
  out.clear();
  if (text == nullptr) return true;
  length = ::strnlen(text, length);
  if (length > kPiece) out.reserve(length);
  char16_t buffer[kPiece + kRoom];
  bool clean = true;
  const char* const end = text + length;
  while (text != end) {
    const char* const stop = text + std::min<std::ptrdiff_t>(end - text, kPiece);
    char16_t* to = buffer;
    while (text < stop) {
      WidenAsciiRun(text, stop, to);
      while (text < stop && static_cast<unsigned char>(*text) >= 0x80) {
        clean &= DecodeSequence(text, end, to);
      }
    }
    out.append(buffer, to);
  }
  return clean;
}

String Utf8ToString(const char* text) {
  String out;
  ToUtf16(out, text);
  return out;
}

std::unique_ptr<char16_t[]> WidenAscii(const char* text) {
  if (text == nullptr) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  std::unique_ptr<char16_t[]> wide(new char16_t[size]);
  for (std::size_t i = 0; i < size; ++i) wide[i] = static_cast<unsigned char>(text[i]);
  return wide;
}

std::unique_ptr<char[]> NarrowLowBytes(const char16_t* text) {
  if (text == nullptr) return nullptr;
  const std::size_t size = std::char_traits<char16_t>::length(text) + 1;
  std::unique_ptr<char[]> narrow(new char[size]);
  for (std::size_t i = 0; i < size; ++i) narrow[i] = static_cast<char>(text[i]);
  return narrow;
}

}  // namespace Common
