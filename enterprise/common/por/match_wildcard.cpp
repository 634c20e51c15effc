#include "enterprise/common/por/match_wildcard.h"

#include <bit>
#include <cstddef>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace Por::Util {

namespace {

constexpr std::size_t kNone = std::u16string_view::npos;

// Whether `part`, without many_char, fits the code units at `text`, which has that many.
bool FitsAt(const char16_t* text, std::u16string_view part, char16_t one_char) {
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (part[i] != text[i] && part[i] != one_char) return false;
  }
  return true;
}

#ifdef __SSE2__
__m128i Load(const char16_t* text) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
}
#endif

// The leftmost place of a `part` that is not empty and has no many_char, kNone if there is none.
// Looks for the first and the last literal of the part at once, eight places in a step, and at the
// rest of it only where both stand.
std::size_t FindPart(std::u16string_view text, std::u16string_view part, char16_t one_char) {
  if (part.size() > text.size()) return kNone;
  const std::size_t first = part.find_first_not_of(one_char);
  if (first == kNone) return 0;
  const std::size_t last = part.find_last_not_of(one_char);
  const std::size_t places = text.size() - part.size() + 1;
  const char16_t* at_first = text.data() + first;
  const char16_t* at_last = text.data() + last;
  std::size_t place = 0;
#ifdef __SSE2__
  const __m128i first_literal = _mm_set1_epi16(static_cast<short>(part[first]));
  const __m128i last_literal = _mm_set1_epi16(static_cast<short>(part[last]));
  for (; places - place >= 8; place += 8) {
    const __m128i both = _mm_and_si128(_mm_cmpeq_epi16(Load(at_first + place), first_literal),
                                       _mm_cmpeq_epi16(Load(at_last + place), last_literal));
    // Two bits for each place.
    unsigned int found = static_cast<unsigned int>(_mm_movemask_epi8(both));
    while (found != 0) {
      const auto bit = static_cast<unsigned int>(std::countr_zero(found));
      if (FitsAt(text.data() + place + bit / 2, part, one_char)) return place + bit / 2;
      found &= ~(3u << bit);
    }
  }
#endif
  for (; place < places; ++place) {
    if (at_first[place] == part[first] && at_last[place] == part[last] &&
        FitsAt(text.data() + place, part, one_char)) {
      return place;
    }
  }
  return kNone;
}

}  // namespace

bool MatchWildcard(std::u16string_view text, std::u16string_view pattern, char16_t many_char,
                   char16_t one_char) {
  if (pattern.empty()) return true;
  // What stands before the first many_char has to be the beginning of the text.
  std::size_t head_size = 0;
  for (; head_size < pattern.size() && pattern[head_size] != many_char; ++head_size) {
    if (head_size == text.size()) return false;
    if (pattern[head_size] != text[head_size] && pattern[head_size] != one_char) return false;
  }
  if (head_size == pattern.size()) return text.size() == head_size;
  text.remove_prefix(head_size);
  pattern.remove_prefix(head_size + 1);

  // What stands behind the last many_char has to be the end of the text. Most texts are refused
  // here, before anything is searched.
  const std::size_t tail_begin = pattern.rfind(many_char) + 1;  // 0 when there is none
  const std::u16string_view tail = pattern.substr(tail_begin);
  if (text.size() < tail.size() ||
      !FitsAt(text.data() + (text.size() - tail.size()), tail, one_char)) {
    return false;
  }
  for (pattern = pattern.substr(0, tail_begin); !pattern.empty();) {
    const std::u16string_view part = pattern.substr(0, pattern.find(many_char));
    pattern.remove_prefix(part.size() + 1);
    if (part.empty()) continue;
    const std::size_t place = FindPart(text, part, one_char);
    if (place == kNone) return false;
    text.remove_prefix(place + part.size());
  }
  // The tail, too, keeps the leftmost place it finds, be there one further right at the end. The
  // parts before it may have left less than its size.
  if (text.size() < tail.size()) return false;
  return tail.empty() || FindPart(text, tail, one_char) == text.size() - tail.size();
}

}  // namespace Por::Util
