#include "enterprise/common/por/match_wildcard.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/support/text.h"

namespace Por::Util {
namespace {

using TestSupport::Utf8;

// Worked cases beside the random ones below.
TEST(MatchWildcard, FollowsTheTable) {
  static constexpr struct {
    std::u16string_view text;
    std::u16string_view pattern;
    bool expected;
    const char* reason = "";
  } kCases[] = {
      {u"", u"", true},
      {u"abc", u"", true, "an empty pattern fits any text"},
      {u"", u"%", true},
      {u"abc", u"ABC", false, "case counts"},
      {u"abab", u"%ab", false, "the leftmost place is kept when the pattern is used up"},
      {u"a", u"a%a", false, "a code unit serves once"},
      {u"abc", u"%_", false, "the leftmost place of one unit is the first"},
      {u"a%c", u"a%c", true},
      {u"\u0441\u043d\u0435\u0433", u"\u0441%_\u0433", true, "one code unit each"},
      {u"\xd83d\xde00", u"_", false, "a pair of surrogates is two"},
      {std::u16string_view(u"a\0b", 3), u"a_b", true, "a unit 0 is like any other"},
      {std::u16string_view(u"a\0b", 3), u"a", false},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(MatchWildcard(test.text, test.pattern, u'%', u'_'), test.expected)
        << '"' << Utf8(test.text) << "\" \"" << Utf8(test.pattern) << "\" " << test.reason;
  }
  EXPECT_TRUE(MatchWildcard(u"100%_", u"1*%?", u'*', u'?')) << "the two characters are given";
  EXPECT_TRUE(MatchWildcard(u"abc", u"%", u'%', u'%')) << "many comes before one";
}

// The rules as they are told: one position in each text and one saved pair to go back to.
bool StepByStep(std::u16string_view text, std::u16string_view pattern) {
  if (pattern.empty()) return true;
  std::size_t p = 0, t = 0, star = 0, resume = 0;
  bool has_star = false;
  while (p != pattern.size()) {
    if (pattern[p] == u'%') {
      has_star = true;
      star = p++;
      resume = t;
    } else if (t != text.size() && (pattern[p] == u'_' || pattern[p] == text[t])) {
      ++p, ++t;
    } else if (!has_star || resume == text.size()) {
      return false;
    } else {
      p = star + 1;
      t = resume++;
    }
  }
  return pattern.back() == u'%' || t == text.size();
}

// Short and long texts of few letters, so that every alignment and every partial fit occurs.
TEST(MatchWildcard, AgreesWithTheStepsOnManyTexts) {
  std::uint64_t state = 1;
  const auto next = [&state](std::uint64_t below) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    return (state >> 33) % below;
  };
  const auto make = [&](std::u16string_view letters, std::uint64_t longest) {
    std::u16string text(next(longest + 1), u' ');
    for (char16_t& unit : text) unit = letters[next(letters.size())];
    return text;
  };
  unsigned int fits = 0;
  for (int i = 0; i < 200000; ++i) {
    const std::u16string text = make(u"aab", i % 4 == 0 ? 60 : 9);
    const std::u16string pattern = make(u"aab%%_", 7);
    const bool expected = StepByStep(text, pattern);
    fits += expected ? 1 : 0;
    ASSERT_EQ(MatchWildcard(text, pattern, u'%', u'_'), expected)
        << '"' << Utf8(text) << "\" \"" << Utf8(pattern) << '"';
  }
  EXPECT_GT(fits, 20000u);
}

}  // namespace
}  // namespace Por::Util
