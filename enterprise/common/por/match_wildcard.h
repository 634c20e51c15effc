#pragma once

#include <string_view>

namespace Por::Util {

// Whether `text` fits `pattern`, code unit by code unit and with case: `many_char` stands for any
// run of code units, also an empty one, `one_char` for any single one. An empty pattern fits all.
//
// A part of the pattern between two `many_char` takes its leftmost place in the text and keeps it;
// that includes the last part. So "%ab" fits "xab" but not "abab", and "a%c" not "abcc".
//
// Allocates nothing. Linear for usual patterns; at worst the text's length times that of the
// longest part.
bool MatchWildcard(std::u16string_view text, std::u16string_view pattern, char16_t many_char,
                   char16_t one_char);

}  // namespace Por::Util
