#include "enterprise/serialize/xml_text.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstddef>
#include <type_traits>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace Serialization {

namespace {

constexpr std::string_view kCDataBegin = "<![CDATA[";
constexpr std::string_view kCDataEnd = "]]>";

// Texts are written piece by piece, so that room is kept for what a piece may need at most and not
// for what the whole text may need.
constexpr std::size_t kPiece = 512;
constexpr std::size_t kMostForUnit = 8;  // "&#65534;"
// For the surplus of stores that are wider than what they write.
constexpr std::size_t kSlack = 16;

template <class Char>
constexpr bool kIsWide = sizeof(Char) > 1;

template <class Char>
unsigned int ToUnit(Char c) {
  return static_cast<std::make_unsigned_t<Char>>(c);
}

constexpr bool IsHighSurrogate(unsigned int unit) {
  return (unit & 0xFC00) == 0xD800;
}
constexpr bool IsLowSurrogate(unsigned int unit) {
  return (unit & 0xFC00) == 0xDC00;
}

// Takes the code point at `at` and steps over it. False: it is no character, but a lone surrogate
// or one of the two last values.
template <class Char>
bool Decode(const Char*& at, const Char* end, unsigned int& value) {
  value = ToUnit(*at++);
  if constexpr (kIsWide<Char>) {
    if (IsHighSurrogate(value)) {
      if (at == end || !IsLowSurrogate(ToUnit(*at))) return false;
      value = ((value & 0x3FF) << 10 | (ToUnit(*at++) & 0x3FF)) + 0x10000;
      return true;
    }
    return !IsLowSurrogate(value) && value < 0xFFFE;
  }
  return true;
}

// A code point of 0x80 or above.
char* PutUtf8(char* to, unsigned int value) {
  const auto put_tail = [&](unsigned int shift) {
    *to++ = static_cast<char>(0x80 | (value >> shift & 0x3F));
  };
  if (value < 0x800) {
    *to++ = static_cast<char>(0xC0 | value >> 6);
  } else if (value < 0x10000) {
    *to++ = static_cast<char>(0xE0 | value >> 12);
    put_tail(6);
  } else {
    *to++ = static_cast<char>(0xF0 | value >> 18);
    put_tail(12);
    put_tail(6);
  }
  put_tail(0);
  return to;
}

char* PutReference(char* to, unsigned int value) {
  to = OutputBuffer::Put(to, "&#");
  to = std::to_chars(to, to + kMostForUnit, value).ptr;
  *to++ = ';';
  return to;
}

// A printable character that needs no escape; no blank.
constexpr bool IsPlain(unsigned int unit) {
  return unit > ' ' && unit < 0x80 && unit != '<' && unit != '&';
}

#ifdef __SSE2__
// 16 units as bytes; a unit above 0x7F becomes a byte that isn't plain.
__m128i Load(const char* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}
__m128i Load(const char16_t* at) {
  const auto* const from = reinterpret_cast<const __m128i*>(at);
  return _mm_packus_epi16(_mm_loadu_si128(from), _mm_loadu_si128(from + 1));
}
unsigned int GetMask(__m128i bytes) {
  return static_cast<unsigned int>(_mm_movemask_epi8(bytes));
}
#endif

// Copies the characters at the front that stay as they are: plain ones, and blanks that don't
// follow a blank. `at` stops at the first other one or at `end`, in front of which the text must
// have one unit more, since a blank at its end is no such character.
template <class Char>
char* PutPlainRun(char* to, const Char*& at, const Char* end, bool& after_space) {
#ifdef __SSE2__
  while (end - at >= 16) {
    const __m128i block = Load(at);
    // Signed: bytes of 0x80 and above are below the blank.
    const unsigned int plain =
        GetMask(_mm_andnot_si128(_mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8('<')),
                                              _mm_cmpeq_epi8(block, _mm_set1_epi8('&'))),
                                 _mm_cmpgt_epi8(block, _mm_set1_epi8(' '))));
    const unsigned int blanks = GetMask(_mm_cmpeq_epi8(block, _mm_set1_epi8(' ')));
    const unsigned int good = plain | (blanks & ~(blanks << 1 | (after_space ? 1u : 0u)));
    const int count = std::countr_one(good);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), block);
    if (count != 0) after_space = (blanks >> (count - 1) & 1) != 0;
    at += count;
    to += count;
    if (count != 16) return to;
  }
#endif
  for (; at != end; ++at) {
    const unsigned int unit = ToUnit(*at);
    const bool is_blank = unit == ' ';
    if (is_blank ? after_space : !IsPlain(unit)) break;
    *to++ = static_cast<char>(unit);
    after_space = is_blank;
  }
  return to;
}

// Whether a text that holds a line feed goes in CDATA.
template <class Char>
bool FitsCData(const Char* at, const Char* end) {
  unsigned int brackets = 0;
  while (at != end) {
    unsigned int value;
    if (!Decode(at, end, value)) return false;
    if (value < ' ' && value != '\t' && value != '\n') return false;
    if (value == '>' && brackets >= 2) return false;
    brackets = value == ']' ? brackets + 1 : 0;
  }
  return true;
}

template <class Char>
void AppendCData(OutputBuffer& out, const Char* at, const Char* end) {
  out.Append(kCDataBegin);
  while (at != end) {
    const Char* const stop = at + std::min<std::ptrdiff_t>(end - at, kPiece);
    char* to = out.Reserve((kPiece + 1) * kMostForUnit);
    while (at < stop) {
      unsigned int value;
      Decode(at, end, value);
      if (value == '\n') *to++ = '\r';
      if (value < 0x80) {
        *to++ = static_cast<char>(value);
      } else {
        to = PutUtf8(to, value);
      }
    }
    out.SetEnd(to);
  }
  out.Append(kCDataEnd);
}

template <class Char>
void AppendText(OutputBuffer& out, const Char* at, std::size_t size) {
  if (size == 0) return;
  const Char* const begin = at;
  const Char* const end = at + size;
  const std::size_t start = out.GetSize();
  bool is_plain = false;  // known to go in the plain form
  bool after_space = true;
  while (at != end) {
    const Char* const stop = at + std::min<std::ptrdiff_t>(end - at, kPiece);
    char* to = out.Reserve((kPiece + 1) * kMostForUnit + kSlack);
    while (at < stop) {
      to = PutPlainRun(to, at, std::min(stop, end - 1), after_space);
      if (at >= stop) break;
      // Characters of other scripts mostly stand together.
      do {
        unsigned int value;
        const bool is_character = Decode(at, end, value);
        if (value == '\n' && !is_plain) {
          // Only now is there a choice. What stands there is written again if it falls otherwise.
          if (FitsCData(begin, end)) {
            out.Truncate(start);
            AppendCData(out, begin, end);
            return;
          }
          is_plain = true;
        }
        after_space = false;
        if (value <= ' ' || !is_character) {
          to = PutReference(to, value);
        } else if (value == '<') {
          to = OutputBuffer::Put(to, "&lt;");
        } else if (value == '&') {
          to = OutputBuffer::Put(to, "&amp;");
        } else if (value < 0x80) {
          *to++ = static_cast<char>(value);
        } else {
          to = PutUtf8(to, value);
        }
      } while (at < stop && ToUnit(*at) >= 0x80);
    }
    out.SetEnd(to);
  }
}

}  // namespace

void AppendXmlText(OutputBuffer& out, std::string_view text) {
  AppendText(out, text.data(), text.size());
}

void AppendXmlText(OutputBuffer& out, std::u16string_view text) {
  AppendText(out, text.data(), text.size());
}

}  // namespace Serialization
