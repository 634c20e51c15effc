#include "core/common/text.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

// Address and thread sanitizers object to blocks that reach behind the end of an array.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OBJPROBE_SANITIZED
#endif
#endif
#if defined(__SSE2__) && !defined(OBJPROBE_SANITIZED) && !defined(__SANITIZE_ADDRESS__) && \
    !defined(__SANITIZE_THREAD__)
#define OBJPROBE_ALIGNED_BLOCKS
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

bool IsAscii(char byte) {
  return static_cast<unsigned char>(byte) < 0x80;
}

// Number of units before the first 0, at most `length`. The caller may give a length beyond the end
// of his array when a 0 comes before. Blocks are read at addresses that are multiples of their size
// and begin before that 0: they may reach behind it, but never into a page that the text isn't in.
std::size_t GetLength(const char16_t* text, std::size_t length) {
  const char16_t* at = text;
#ifdef OBJPROBE_ALIGNED_BLOCKS
  while (length != 0 && reinterpret_cast<std::uintptr_t>(at) % sizeof(__m128i) != 0) {
    if (*at == 0) return static_cast<std::size_t>(at - text);
    ++at;
    --length;
  }
  const __m128i zero = _mm_setzero_si128();
  for (; length >= 8; at += 8, length -= 8) {
    const __m128i block = _mm_load_si128(reinterpret_cast<const __m128i*>(at));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(block, zero)) != 0) break;
  }
#endif
  for (; length != 0 && *at != 0; ++at) --length;
  return static_cast<std::size_t>(at - text);
}

// Widens the ASCII bytes that stand at the front of `count` bytes; returns their number. May write
// up to 16 units behind them.
std::size_t WidenAsciiRun(const char* from, std::size_t count, char16_t* to) {
  std::size_t done = 0;
#ifdef __SSE2__
  const __m128i zero = _mm_setzero_si128();
  for (; count - done >= 16; done += 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + done));
    auto* target = reinterpret_cast<__m128i*>(to + done);
    _mm_storeu_si128(target, _mm_unpacklo_epi8(block, zero));
    _mm_storeu_si128(target + 1, _mm_unpackhi_epi8(block, zero));
    const auto high = static_cast<unsigned int>(_mm_movemask_epi8(block));
    if (high != 0) return done + static_cast<std::size_t>(std::countr_zero(high));
  }
  // What is left in blocks of 8, the last of which overlaps the one before it.
  while (count >= 8 && done < count) {
    const std::size_t at = std::min(done, count - 8);
    const __m128i block = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(from + at));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + at), _mm_unpacklo_epi8(block, zero));
    const auto high = static_cast<unsigned int>(_mm_movemask_epi8(block));
    if (high != 0) return at + static_cast<std::size_t>(std::countr_zero(high));
    done = at + 8;
  }
#endif
  for (; done != count && IsAscii(from[done]); ++done) {
    to[done] = static_cast<unsigned char>(from[done]);
  }
  return done;
}

// The reverse: narrows the units below 0x80 at the front. May write up to 16 bytes behind them.
std::size_t NarrowAsciiRun(const char16_t* from, std::size_t count, char* to) {
  std::size_t done = 0;
#ifdef __SSE2__
  const __m128i zero = _mm_setzero_si128();
  const __m128i above = _mm_set1_epi16(static_cast<short>(0xFF80));
  const auto load = [from](std::size_t at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + at));
  };
  // Two bits for each unit, set for those below 0x80.
  const auto find_ascii = [&](__m128i block) {
    return static_cast<unsigned int>(
        _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(block, above), zero)));
  };
  for (; count - done >= 16; done += 16) {
    const __m128i first = load(done);
    const __m128i second = load(done + 8);
    // What is not ASCII is saturated; those bytes are written again.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + done), _mm_packus_epi16(first, second));
    if (find_ascii(_mm_or_si128(first, second)) != 0xFFFF) {
      const unsigned int ascii = find_ascii(first) | find_ascii(second) << 16;
      return done + static_cast<std::size_t>(std::countr_one(ascii)) / 2;
    }
  }
  while (count >= 8 && done < count) {
    const std::size_t at = std::min(done, count - 8);
    const __m128i block = load(at);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to + at), _mm_packus_epi16(block, zero));
    const unsigned int ascii = find_ascii(block);
    if (ascii != 0xFFFF) return at + static_cast<std::size_t>(std::countr_one(ascii)) / 2;
    done = at + 8;
  }
#endif
  for (; done != count && from[done] < 0x80; ++done) to[done] = static_cast<char>(from[done]);
  return done;
}

bool IsContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// Decodes what stands at `text`, a byte of 0x80 or above. False if it wasn't clean.
bool DecodeSequence(const char*& text, const char* text_end, char16_t*& to) {
  const auto* from = reinterpret_cast<const unsigned char*>(text);
  const auto* end = reinterpret_cast<const unsigned char*>(text_end);
  const unsigned int lead = from[0];
  if ((lead & 0xE0) == 0xC0 && end - from >= 2 && IsContinuation(from[1])) {
    const unsigned int value = (lead & 0x1F) << 6 | (from[1] & 0x3Fu);
    *to++ = static_cast<char16_t>(value);
    text += 2;
    return value >= 0x80;
  }
  if ((lead & 0xF0) == 0xE0 && end - from >= 3 && IsContinuation(from[1]) &&
      IsContinuation(from[2])) {
    const unsigned int value = (lead & 0x0F) << 12 | (from[1] & 0x3Fu) << 6 | (from[2] & 0x3Fu);
    *to++ = static_cast<char16_t>(value);
    text += 3;
    return value >= 0x800;
  }
  if ((lead & 0xF8) == 0xF0 && end - from >= 4 && IsContinuation(from[1]) &&
      IsContinuation(from[2]) && IsContinuation(from[3])) {
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
    const auto narrow_run = [&] {
      const std::size_t run = NarrowAsciiRun(text, static_cast<std::size_t>(stop - text), to);
      text += run;
      to += run;
    };
    narrow_run();
    while (text < stop) {
      if (*text >= 0x80) {
        EncodeUnit(text, end, to);
        continue;
      }
      // A blank between two words isn't worth a look at a whole block.
      *to++ = static_cast<char>(*text++);
      if (text < stop && *text < 0x80) narrow_run();
    }
    out.append(buffer, static_cast<std::size_t>(to - buffer));
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
    const auto widen_run = [&] {
      const std::size_t run = WidenAsciiRun(text, static_cast<std::size_t>(stop - text), to);
      text += run;
      to += run;
    };
    widen_run();
    while (text < stop) {
      if (!IsAscii(*text)) {
        clean &= DecodeSequence(text, end, to);
        continue;
      }
      *to++ = static_cast<unsigned char>(*text++);
      if (text < stop && IsAscii(*text)) widen_run();
    }
    out.append(buffer, static_cast<std::size_t>(to - buffer));
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
