#include "enterprise/common/por/matches.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/por/const_data_accessor.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/match_wildcard.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visit_value.h"
#include "enterprise/common/por/visitor.h"

namespace Por::Util {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/matches"};

using StringValue = View::ComplexValue<Common::String>;

// A predicate: a source unit and the value of the pattern's trait.
using MatchTraitPattern = bool (*)(const View::Unit& source, const View::Unit& value);

[[noreturn]] void ThrowPatternError(Common::MessageRow row, const Common::LineTag& tag) {
  throw Common::MakeTracedError(kPorPattern, Common::GetMessageText(row), tag);
}

bool IsAnyValue(const View::Unit&, const View::Unit&) {
  return true;
}

bool IsGreater(const View::Unit& source, const View::Unit& value) {
  return HaveSameType(source, value) && Compare(source, value) == 1;
}

bool IsGreaterOrEqual(const View::Unit& source, const View::Unit& value) {
  return HaveSameType(source, value) && Compare(source, value) != -1;
}

bool IsLess(const View::Unit& source, const View::Unit& value) {
  return HaveSameType(source, value) && Compare(source, value) == -1;
}

bool IsLessOrEqual(const View::Unit& source, const View::Unit& value) {
  return HaveSameType(source, value) && Compare(source, value) != 1;
}

void ValidateBetweenPattern(const View::Unit& from, const View::Unit& to) {
  if (HaveSameType(from, to)) return;
  ThrowPatternError(Common::MessageRow::PorRangeInclusion,
                    kSource.At("ValidateBetweenPattern", 50));
}

bool IsBetween(const View::Unit& source, const View::Unit& value) {
  const ConstDataAccessor range(value);
  const View::Unit& from = range["From"].Get();
  const View::Unit& to = range["To"].Get();
  ValidateBetweenPattern(from, to);
  return HaveSameType(source, to) && Compare(source, from) != -1 && Compare(source, to) != 1;
}

bool IsIn(const View::Unit& source, const View::Unit& value) {
  return ArrayContains(value, source);
}

bool IsValueIn(const View::Unit& source, const View::Unit& value) {
  return ArrayContainsValue(value, source);
}

// Stops at the first element of the source that is found in the other array.
class ArrayElementsMatcher final : public ItemProcessor<const View::Unit> {
 public:
  explicit ArrayElementsMatcher(const View::Unit& array) : array_(array) {}
  bool Process(const View::Unit& element) override {
    matched = ArrayContainsValue(array_, element);
    return matched;
  }
  bool matched = false;

 private:
  const View::Unit& array_;
};

bool HasIntersectionPattern(const View::Unit& source, const View::Unit& value) {
  if (!IsArray(source) || !IsArray(value)) {
    ThrowPatternError(Common::MessageRow::PorStructureMismatch,
                      kSource.At("HasIntersectionPattern", 70));
  }
  ArrayElementsMatcher matcher(value);
  Detail::VisitValue<View::ArrayValue>(
      source, [&](const View::ArrayValue& array) { array.ForEach(matcher); });
  return matcher.matched;
}

bool IsLikeText(const View::Unit& source, const Common::String& wildcard) {
  bool matched = false;
  Detail::VisitValue<StringValue>(source, [&](const StringValue& text) {
    matched = MatchWildcard(text.Get(), wildcard, u'%', u'_');
  });
  return matched;
}

// Stops at the first element that is a string and fits; other elements are skipped.
class ArrayElementsLikeMatcher final : public ItemProcessor<const View::Unit> {
 public:
  explicit ArrayElementsLikeMatcher(const Common::String& wildcard) : wildcard_(wildcard) {}
  bool Process(const View::Unit& element) override {
    matched = IsLikeText(element, wildcard_);
    return matched;
  }
  bool matched = false;

 private:
  const Common::String& wildcard_;
};

void ValidateLikePattern(bool is_text) {
  if (is_text) return;
  ThrowPatternError(Common::MessageRow::PorStructureMismatch,
                    kSource.At("ValidateLikePattern", 80));
}

bool IsLike(const View::Unit& source, const View::Unit& value) {
  bool matched = false;
  ValidateLikePattern(Detail::VisitValue<StringValue>(value, [&](const StringValue& wildcard) {
    if (!IsSearchable(source)) {
      matched = IsLikeText(source, wildcard.Get());
      return;
    }
    ArrayElementsLikeMatcher matcher(wildcard.Get());
    Detail::VisitValue<View::ArrayValue>(
        source, [&](const View::ArrayValue& array) { array.ForEach(matcher); });
    matched = matcher.matched;
  }));
  return matched;
}

bool DirectRelativePattern(const View::Unit& source, const View::Unit& value) {
  bool matched = false;
  const bool is_text = Detail::VisitValue<StringValue>(value, [&](const StringValue& begin) {
    Detail::VisitValue<StringValue>(source, [&](const StringValue& text) {
      matched = std::u16string_view(text.Get()).starts_with(begin.Get());
    });
  });
  if (!is_text) {
    ThrowPatternError(Common::MessageRow::PorStructureMismatch,
                      kSource.At("DirectRelativePattern", 90));
  }
  return matched;
}

bool HasSource(const View::Unit& source, const View::Unit& value) {
  return HasTrait(value, "AnyValue") ? HasTrait(source, "Source")
                                     : HasTraitWithValue(source, "Source", value);
}

bool MatchesAny(const View::Unit& source, const View::Unit& value) {
  bool matched = true;
  auto processor = MakeProcessor<const View::Unit>([&](const View::Unit& element) {
    matched = Matches(source, element);
    return matched;
  });
  Detail::VisitValue<View::ArrayValue>(
      value, [&](const View::ArrayValue& array) { array.ForEach(processor); });
  return matched;
}

struct PatternEntry {
  std::string_view name;
  MatchTraitPattern match;
};

// Constant data in the order of the names' bytes, so that the table is there before any code runs.
constexpr PatternEntry kPatternTable[] = {
    {"AnyValue", IsAnyValue},
    {"Between", IsBetween},
    {"DirectRelative", DirectRelativePattern},
    {"EqualValue", UnitValueEqual},
    {"ForeignKey",
     [](const View::Unit& source, const View::Unit& value) {
       return HasTraitWithValue(source, "ForeignKey", value);
     }},
    {"Greater", IsGreater},
    {"GreaterEqual", IsGreaterOrEqual},
    {"HasIntersection", HasIntersectionPattern},
    {"In", IsIn},
    {"IncludedInArray", ArrayContains},
    {"Is", [](const View::Unit& source,
              const View::Unit& value) { return HasTraitWithValue(source, "Is", value); }},
    {"Less", IsLess},
    {"LessEqual", IsLessOrEqual},
    {"Like", IsLike},
    {"Not",
     [](const View::Unit& source, const View::Unit& value) { return !Matches(source, value); }},
    {"Or", MatchesAny},
    {"PrimaryKey",
     [](const View::Unit& source, const View::Unit& value) {
       return HasTraitWithValue(source, "PrimaryKey", value);
     }},
    {"Source", HasSource},
    {"ValueIn", IsValueIn},
    {"ValueIncludedInArray", ArrayContainsValue},
};
static_assert(std::size(kPatternTable) == 20);
static_assert(std::ranges::is_sorted(kPatternTable, {}, &PatternEntry::name));

// Where the names of each letter begin, 'A' to 'Z' and one behind: a lookup, done for each trait of
// a pattern on each row, compares three names at most.
constexpr std::size_t kLetters = 26;
constexpr auto kLetterBegin = [] {
  std::array<unsigned char, kLetters + 1> begin{};
  unsigned char entry = 0;
  for (std::size_t letter = 0; letter <= kLetters; ++letter) {
    while (entry < std::size(kPatternTable) &&
           static_cast<std::size_t>(kPatternTable[entry].name[0] - 'A') < letter) {
      ++entry;
    }
    begin[letter] = entry;
  }
  return begin;
}();
static_assert(kLetterBegin[0] == 0 && kLetterBegin[kLetters] == std::size(kPatternTable));

MatchTraitPattern GetPatternByName(const Name& name) {
  const std::string_view text = name.GetText();
  const auto letter = static_cast<std::size_t>(name.GetText()[0] - 'A');
  if (letter < kLetters) {
    for (std::size_t i = kLetterBegin[letter]; i < kLetterBegin[letter + 1]; ++i) {
      if (kPatternTable[i].name == text) return kPatternTable[i].match;
    }
  }
  Common::String message;
  Common::FormatMessage(message, Common::GetMessageText(Common::MessageRow::PorTraitNotRegistered),
                        name.ToString());
  throw Common::MakeTracedError(kPorPattern, message.c_str(), kSource.At("GetPatternByName", 100));
}

// Stops at the first trait that does not hold.
class PatternTraitProcessor final : public ItemProcessor<const View::Trait> {
 public:
  explicit PatternTraitProcessor(const View::Unit& source) : source_(source) {}
  bool Process(const View::Trait& trait) override {
    has_traits = true;
    matched = GetPatternByName(trait.GetName())(source_, trait.GetValue());
    return !matched;
  }
  bool has_traits = false;
  bool matched = true;

 private:
  const View::Unit& source_;
};

class SourcePropertyMatcher final : public ItemProcessor<const View::Property> {
 public:
  explicit SourcePropertyMatcher(const View::Unit& pattern) : pattern_(pattern) {}
  bool Process(const View::Property& property) override {
    matched = Matches(property.GetValue(), pattern_);
    return true;
  }
  bool matched = false;

 private:
  const View::Unit& pattern_;
};

// Stops at the first property of the pattern that the source lacks or that does not match.
class PatternPropertyMatcher final : public ItemProcessor<const View::Property> {
 public:
  explicit PatternPropertyMatcher(const View::CompositeValue& source) : source_(source) {}
  bool Process(const View::Property& property) override {
    SourcePropertyMatcher matcher(property.GetValue());
    matched = source_.Find(property.GetName(), matcher) && matcher.matched;
    return !matched;
  }
  bool matched = true;

 private:
  const View::CompositeValue& source_;
};

class CompositeSourceVisitor final : public View::NullVisitor {
 public:
  using View::NullVisitor::Visit;
  explicit CompositeSourceVisitor(const View::Unit& pattern) : pattern_(pattern) {}
  void Visit(const View::CompositeValue& source) override {
    PatternPropertyMatcher matcher(source);
    Detail::VisitValue<View::CompositeValue>(
        pattern_, [&](const View::CompositeValue& pattern) { pattern.ForEach(matcher); });
    matched = matcher.matched;
  }
  bool matched = true;

 private:
  const View::Unit& pattern_;
};

}  // namespace

bool Matches(const View::Unit& source, const View::Unit& pattern) {
  const unsigned int kind = GetValueTypeIndex(pattern);
  if (kind == kNilIndex && !HasTraits(pattern)) return true;
  if (GetValueTypeIndex(source) != kind) return false;

  PatternTraitProcessor traits(source);
  pattern.GetTraits().ForEach(traits);
  if (!traits.matched) return false;

  if (kind == kCompositeIndex) {
    CompositeSourceVisitor visitor(pattern);
    source.Accept(visitor);
    return visitor.matched;
  }
  return traits.has_traits || UnitValueEqual(source, pattern);
}

}  // namespace Por::Util
