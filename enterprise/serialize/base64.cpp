#include "enterprise/serialize/base64.h"

#include <array>
#include <cstdint>
#include <utility>

#include "core/common/number_text.h"

#if defined(__x86_64__)
#include <immintrin.h>
#define OBJPROBE_AVX2
#endif

namespace Serialization {

namespace {

constexpr unsigned char kInvalid = 0xFF;
constexpr unsigned char kSpace = 0xFE;
constexpr unsigned char kPad = 0xFD;

// What a character stands for: its six bits or one of the above.
constexpr std::array<unsigned char, 128> kMeanings = [] {
  std::array<unsigned char, 128> meanings{};
  meanings.fill(kInvalid);
  for (unsigned char i = 0; i < 64; ++i) {
    meanings[static_cast<unsigned char>(Common::kBase64Alphabet[i])] = i;
  }
  for (const char space : {'\t', '\n', '\r', ' '})
    meanings[static_cast<unsigned char>(space)] = kSpace;
  meanings['='] = kPad;
  return meanings;
}();

unsigned char GetMeaning(char16_t unit) {
  return unit < kMeanings.size() ? kMeanings[unit] : kInvalid;
}

#ifdef OBJPROBE_AVX2

// The instructions are not part of the baseline that is compiled for.
#define AVX2 __attribute__((target("avx2")))
const bool has_avx2 = __builtin_cpu_supports("avx2") != 0;

// Both halves of a register hold the same 16 bytes.
AVX2 __m256i Twice(char b0, char b1, char b2, char b3, char b4, char b5, char b6, char b7, char b8,
                   char b9, char b10, char b11, char b12, char b13, char b14, char b15) {
  return _mm256_broadcastsi128_si256(
      _mm_setr_epi8(b0, b1, b2, b3, b4, b5, b6, b7, b8, b9, b10, b11, b12, b13, b14, b15));
}

// Writes whole blocks of 24 bytes as 32 characters and moves both places behind them. Reads up to 4
// bytes more than it writes.
AVX2 char* EncodeBlocks(char* to, const unsigned char*& from, const unsigned char* end) {
  while (end - from >= 28) {
    // Three bytes go into each 32-bit lane, in the order 1 0 2 1: so each of the two 16-bit words
    // of a lane holds the 12 bits of two characters.
    const __m256i bytes = _mm256_shuffle_epi8(
        _mm256_inserti128_si256(
            _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from))),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + 12)), 1),
        Twice(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
    // Multiplying by a power of two shifts each word its own way: the first and third six bits to
    // the right by 10 and 6, the second and fourth ones to the left by 4 and 8.
    const __m256i odd = _mm256_mulhi_epu16(_mm256_and_si256(bytes, _mm256_set1_epi32(0x0FC0FC00)),
                                           _mm256_set1_epi32(0x04000040));
    const __m256i even = _mm256_mullo_epi16(_mm256_and_si256(bytes, _mm256_set1_epi32(0x003F03F0)),
                                            _mm256_set1_epi32(0x01000010));
    const __m256i sixes = _mm256_or_si256(odd, even);
    // The distance to the character depends on which part of the alphabet it is: 0 for lower case,
    // 1 to 10 for digits, 11 and 12 for the last two, 13 for upper case.
    const __m256i upper = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), sixes);
    const __m256i part = _mm256_or_si256(_mm256_subs_epu8(sixes, _mm256_set1_epi8(51)),
                                         _mm256_and_si256(upper, _mm256_set1_epi8(13)));
    constexpr char kLower = 'a' - 26;
    constexpr char kDigit = '0' - 52;
    const __m256i distances = Twice(kLower, kDigit, kDigit, kDigit, kDigit, kDigit, kDigit, kDigit,
                                    kDigit, kDigit, kDigit, '+' - 62, '/' - 63, 'A', 0, 0);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to),
                        _mm256_add_epi8(sixes, _mm256_shuffle_epi8(distances, part)));
    from += 24;
    to += 32;
  }
  return to;
}

// Which bytes are from `first` to `last`, as a mask.
AVX2 __m256i AreWithin(__m256i bytes, int first, int last) {
  return _mm256_andnot_si256(
      _mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(static_cast<char>(last))),
      _mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(static_cast<char>(first - 1))));
}

// The number where the mask is set, 0 elsewhere.
AVX2 __m256i Where(__m256i mask, int number) {
  return _mm256_and_si256(mask, _mm256_set1_epi8(static_cast<char>(number)));
}

// Reads whole blocks of 32 characters as 24 bytes, up to the first block that holds anything but
// characters of the alphabet, and moves both places behind them. Writes up to 8 bytes more than it
// reads.
AVX2 unsigned char* DecodeBlocks(unsigned char* to, const char16_t*& from, const char16_t* end) {
  while (end - from >= 44) {  // the twelve units behind a block have room for nine bytes
    const auto* const at = reinterpret_cast<const __m256i*>(from);
    // A unit above 0x7F becomes 0 or a byte above 0x7F, which is no character of the alphabet.
    const __m256i text = _mm256_permute4x64_epi64(
        _mm256_packus_epi16(_mm256_loadu_si256(at), _mm256_loadu_si256(at + 1)), 0xD8);
    const __m256i upper = AreWithin(text, 'A', 'Z');
    const __m256i lower = AreWithin(text, 'a', 'z');
    const __m256i digit = AreWithin(text, '0', '9');
    const __m256i plus = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('+'));
    const __m256i slash = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('/'));
    const __m256i good = _mm256_or_si256(_mm256_or_si256(_mm256_or_si256(upper, lower), digit),
                                         _mm256_or_si256(plus, slash));
    if (_mm256_movemask_epi8(good) != -1) break;
    const __m256i sixes = _mm256_sub_epi8(
        text,
        _mm256_or_si256(_mm256_or_si256(_mm256_or_si256(Where(upper, 'A'), Where(lower, 'a' - 26)),
                                        Where(digit, '0' - 52)),
                        _mm256_or_si256(Where(plus, '+' - 62), Where(slash, '/' - 63))));
    // Two and two characters are joined to 12 bits, two and two of these to the 24 bits of a lane,
    // whose bytes then go to the front in reverse order.
    const __m256i twelves = _mm256_maddubs_epi16(sixes, _mm256_set1_epi32(0x01400140));
    const __m256i lanes = _mm256_madd_epi16(twelves, _mm256_set1_epi32(0x00011000));
    const __m256i packed =
        _mm256_shuffle_epi8(lanes, Twice(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    const __m256i bytes =
        _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), bytes);
    from += 32;
    to += 24;
  }
  return to;
}

#endif

// Room that Decode wants for a text.
std::size_t GetRoom(std::u16string_view text) {
  return text.size() / 4 * 3;
}

// Moves `to` behind the bytes. False: bad text.
bool Decode(unsigned char*& to, std::u16string_view text) {
  const char16_t* at = text.data();
  const char16_t* const end = at + text.size();
  for (;;) {
#ifdef OBJPROBE_AVX2
    if (has_avx2) to = DecodeBlocks(to, at, end);
#endif
    // One group of four.
    unsigned int group = 0;
    int count = 0;
    int pads = 0;
    while (at != end && count + pads != 4) {
      const unsigned char meaning = GetMeaning(*at++);
      if (meaning == kSpace) continue;
      if (meaning == kPad) {
        ++pads;
      } else if (meaning == kInvalid || pads != 0) {
        return false;
      } else {
        group = group << 6 | meaning;
        ++count;
      }
    }
    if (count + pads == 0) return true;
    if (count + pads != 4 || pads > 2) return false;
    group <<= 6 * pads;
    *to++ = static_cast<unsigned char>(group >> 16);
    if (pads < 2) *to++ = static_cast<unsigned char>(group >> 8);
    if (pads < 1) *to++ = static_cast<unsigned char>(group);
    if (pads == 0) continue;
    for (; at != end; ++at) {
      if (GetMeaning(*at) != kSpace) return false;
    }
    return true;
  }
}

}  // namespace

void AppendBase64(OutputBuffer& out, const unsigned char* bytes, std::size_t size) {
  if (size == 0) return;
  // What the memory holds, four thirds of it is a number.
  char* to = out.Reserve((size + 2) / 3 * 4);
  const unsigned char* const end = bytes + size;
#ifdef OBJPROBE_AVX2
  if (has_avx2) to = EncodeBlocks(to, bytes, end);
#endif
  out.SetEnd(Common::Base64Encode(to, bytes, end, Common::kBase64Alphabet, true));
}

bool ReadBase64(std::u16string_view text, std::vector<unsigned char>& bytes) {
  std::vector<unsigned char> decoded(GetRoom(text));
  unsigned char* end = decoded.data();
  if (!Decode(end, text)) return false;
  decoded.resize(static_cast<std::size_t>(end - decoded.data()));
  bytes = std::move(decoded);
  return true;
}

bool ReadBase64(std::u16string_view text, CountedBytes& bytes) {
  boost::shared_array<unsigned char> decoded(new unsigned char[GetRoom(text)]);
  unsigned char* end = decoded.get();
  if (!Decode(end, text)) return false;
  bytes.size = static_cast<std::size_t>(end - decoded.get());
  bytes.data = std::move(decoded);
  return true;
}

}  // namespace Serialization
