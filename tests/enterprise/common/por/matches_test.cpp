#include "enterprise/common/por/matches.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>

#include "enterprise/common/por/unit_helpers.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"
#include "tests/support/allocation_watch.h"

namespace Por::Test {
namespace {

struct Row {
  OwnedUnit source;
  OwnedUnit pattern;
  bool expected;
  const char* reason = "";
};

template <std::size_t kSize>
void Check(const Row (&rows)[kSize]) {
  for (const Row& row : rows) {
    EXPECT_EQ(Util::Matches(*row.source, *row.pattern), row.expected)
        << "row " << &row - rows << ' ' << row.reason;
  }
}

// A predicate on a source of kind dword, string or array: the pattern's own value never counts.
OwnedUnit OnDWord(const Name& predicate, OwnedUnit value) {
  return With(DWord(99), predicate, std::move(value));
}
OwnedUnit OnText(const Name& predicate, OwnedUnit value) {
  return With(Text(u"any"), predicate, std::move(value));
}
OwnedUnit OnArray(const Name& predicate, OwnedUnit value) {
  return With(Array(), predicate, std::move(value));
}

OwnedUnit Marked(unsigned int value) {
  return With(DWord(value), "t", Nil());
}

const double kNan = std::numeric_limits<double>::quiet_NaN();

TEST(Matches, PatternsWithoutTraitsCompareValuesAndKindsAlwaysCount) {
  Check({
      {DWord(7), Nil(), true, "an empty pattern matches any kind"},
      {QWord(7), DWord(7), false, "kinds differ"},
      {Marked(7), DWord(7), true, "traits of the source don't count"},
      {Double(kNan), Double(kNan), false},
      {Array(DWord(1)), Array(DWord(1)), true},
      {Array(DWord(1)), Array(Nil()), false, "elements are no patterns"},
      {Array(Marked(1)), Array(DWord(1)), false, "elements compare with their traits"},

      {QWord(7), OnDWord("AnyValue", Nil()), false},
      {Nil(), With(Nil(), "AnyValue", Nil()), true},
      {QWord(7), OnDWord("NoSuchPredicate", Nil()), false, "the kinds come before the traits"},
  });
}

TEST(Matches, CompositesDemandTheirPropertiesAndTraitsAllHold) {
  const auto source = [] { return Composite("a", Composite("x", DWord(1), "y", DWord(2))); };
  const auto pattern = [](unsigned int value) {
    return Composite("a", Composite("y", OnDWord("Greater", DWord(value))));
  };
  const auto typed = [](const char16_t* type, unsigned int value) {
    return With(Composite("a", DWord(value)), "Is", Text(type));
  };
  const auto range = [] { return With(OnDWord("Greater", DWord(5)), "Less", DWord(9)); };
  Check({
      {Array(), Composite(), false},
      {Composite("a", DWord(1), "b", DWord(2)), Composite("b", DWord(2)), true, "others are free"},
      {Composite("a", DWord(1)), Composite("a", DWord(2)), false},
      {Composite("a", DWord(1)), Composite("b", Nil()), false, "a missing property"},
      {source(), pattern(1), true},
      {source(), pattern(2), false},
      {typed(u"T", 1), typed(u"T", 1), true},
      {typed(u"T", 1), typed(u"T", 2), false, "with traits the properties count as well"},
      {typed(u"U", 1), typed(u"T", 1), false},

      {DWord(5), range(), false},
      {DWord(6), range(), true},
      {DWord(6), With(OnDWord("Less", DWord(9)), "Less", DWord(6)), false, "a name may come twice"},
  });
}

TEST(Matches, OrderPredicatesAskForTheSameKind) {
  constexpr struct {
    const char* name;
    bool below, equal, above;
  } kPredicates[] = {{"Greater", false, false, true},
                     {"GreaterEqual", false, true, true},
                     {"Less", true, false, false},
                     {"LessEqual", true, true, false},
                     {"EqualValue", false, true, false}};
  for (const auto& [text, below, equal, above] : kPredicates) {
    const Name name = Name::FromUtf8(text);
    Check({
        {DWord(4), OnDWord(name, DWord(5)), below, text},
        {DWord(5), OnDWord(name, DWord(5)), equal, text},
        {DWord(6), OnDWord(name, DWord(5)), above, text},
        {DWord(4), OnDWord(name, QWord(5)), false, text},
        {DWord(4), OnDWord(name, Word(3)), false, text},
        {Text(u"b"), OnText(name, Text(u"a")), above, text},
    });
  }
  Check({
      // The order counts traits where the values are equal, the equality doesn't.
      {Marked(5), OnDWord("Greater", DWord(5)), true},
      {Marked(5), OnDWord("LessEqual", DWord(5)), false},
      {Marked(5), OnDWord("EqualValue", DWord(5)), true},
      // Anything with a NaN compares as 1.
      {Double(1), With(Double(0), "Greater", Double(kNan)), true},
      {Double(kNan), With(Double(0), "GreaterEqual", Double(1)), true},
      {Double(1), With(Double(0), "LessEqual", Double(kNan)), false},
  });
}

TEST(Matches, BetweenIncludesBothEnds) {
  const auto between = [](OwnedUnit from, OwnedUnit to) {
    return OnDWord("Between", Composite("From", std::move(from), "To", std::move(to)));
  };
  Check({
      {DWord(2), between(DWord(3), DWord(5)), false},
      {DWord(3), between(DWord(3), DWord(5)), true},
      {DWord(5), between(DWord(3), DWord(5)), true},
      {DWord(6), between(DWord(3), DWord(5)), false},
      {DWord(4), between(QWord(3), QWord(5)), false, "another kind"},
  });
}

TEST(Matches, InclusionIsByUnitOrByValue) {
  Check({
      {DWord(2), OnDWord("In", Array(DWord(1), DWord(2))), true},
      {DWord(3), OnDWord("In", Array(DWord(1), DWord(2))), false},
      {DWord(2), OnDWord("In", Array(QWord(2))), false},
      {Marked(2), OnDWord("In", Array(DWord(2))), false, "traits count"},
      {Marked(2), OnDWord("In", Array(DWord(2), Marked(2))), true},
      {Marked(2), OnDWord("ValueIn", Array(DWord(2))), true, "traits don't count"},
      {DWord(2), OnDWord("In", DWord(2)), false, "no array has no elements"},

      {Array(DWord(1), DWord(2)), OnArray("IncludedInArray", DWord(2)), true},
      {Array(DWord(1), Marked(2)), OnArray("IncludedInArray", DWord(2)), false},
      {Array(DWord(1), Marked(2)), OnArray("ValueIncludedInArray", DWord(2)), true},
      {DWord(2), OnDWord("IncludedInArray", DWord(2)), false},

      {Array(DWord(1), Marked(2)), OnArray("HasIntersection", Array(DWord(3), DWord(2))), true},
      {Array(DWord(1)), OnArray("HasIntersection", Array(DWord(3), QWord(1))), false},
      {Array(DWord(3)), OnArray("HasIntersection", Array()), false},
  });
}

TEST(Matches, TextPredicates) {
  const auto searchable = [](OwnedUnit unit) { return With(std::move(unit), "Searchable", Nil()); };
  Check({
      {Text(u"backup"), OnText("Like", Text(u"b%_p")), true},
      {Text(u"backup"), OnText("Like", Text(u"")), true},
      {DWord(1), OnDWord("Like", Text(u"")), false, "no text"},
      {searchable(Array(DWord(1), Text(u"x"), Text(u"ab"))), OnArray("Like", Text(u"a%")), true},
      {searchable(Array(Text(u"x"))), OnArray("Like", Text(u"a%")), false},
      {searchable(Array()), OnArray("Like", Text(u"%")), false},
      {Array(Text(u"ab")), OnArray("Like", Text(u"a%")), false, "not searchable"},
      {searchable(Text(u"ab")), OnText("Like", Text(u"a%")), true, "no array"},

      {Text(u"/vol/a"), OnText("DirectRelative", Text(u"/vol")), true},
      {Text(u"/vo"), OnText("DirectRelative", Text(u"/vol")), false, "the source is shorter"},
      {DWord(1), OnDWord("DirectRelative", Text(u"")), false, "no text"},
  });
}

TEST(Matches, TraitPredicates) {
  for (const Name& name : {Name("Is"), Name("PrimaryKey"), Name("ForeignKey"), Name("Source")}) {
    const auto source = [&] { return With(With(DWord(1), name, Text(u"A")), name, Text(u"B")); };
    const auto any = [](OwnedUnit unit) { return With(std::move(unit), "AnyValue", Nil()); };
    Check({
        {source(), OnDWord(name, Text(u"B")), true, name.GetText()},
        {source(), OnDWord(name, With(Text(u"B"), "t", Nil())), true, "by value"},
        {source(), OnDWord(name, Text(u"C")), false, name.GetText()},
        {DWord(1), OnDWord(name, Text(u"B")), false, name.GetText()},
        {source(), OnDWord(name, any(Text(u"C"))), name == "Source",
         "any will do for Source alone"},
        {With(DWord(1), "Other", Nil()), OnDWord(name, any(Nil())), false, name.GetText()},
    });
  }
}

TEST(Matches, NotAndOrHoldPatterns) {
  Check({
      {DWord(1), OnDWord("Not", DWord(2)), true},
      {DWord(2), OnDWord("Not", DWord(2)), false},
      {DWord(2), OnDWord("Not", QWord(2)), true, "another kind doesn't match"},
      {DWord(2), OnDWord("Not", Nil()), false, "nil matches anything"},

      {DWord(2), OnDWord("Or", Array(DWord(1), DWord(2))), true},
      {DWord(3), OnDWord("Or", Array(DWord(1), DWord(2))), false},
      {DWord(3), OnDWord("Or", Array(DWord(1), OnDWord("Greater", DWord(2)))), true},
      {DWord(3), OnDWord("Or", Array()), true, "no elements"},
      {DWord(3), OnDWord("Or", Array(DWord(3), OnDWord("NoSuch", Nil()))), true,
       "the first true ends it"},
  });
}

TEST(Matches, IllFormedPatternsThrowWhereTheWalkMeetsThem) {
  constexpr char kMismatch[] = "Error fa000e: POR: Object internal structure mismatch.";
  const struct {
    OwnedUnit source;
    OwnedUnit pattern;
    const char* error;
    const char* function;
  } kRefused[] = {
      {DWord(1), OnDWord("anyvalue", Nil()),
       "Error fa000e: POR: Name 'anyvalue' of the trait is not registered for pattern.",
       "GetPatternByName"},
      {DWord(1), OnDWord("Between", Composite("From", DWord(1), "To", QWord(2))),
       "Error fa000e: POR: Failed to check range inclusion.", "ValidateBetweenPattern"},
      {DWord(1), OnDWord("Between", DWord(1)),
       "ModuleError fa0020: POR: Element 'From' cannot be found.", "EnsureUnitIsValid"},
      {DWord(1), OnDWord("Like", DWord(1)), kMismatch, "ValidateLikePattern"},
      {Array(), OnArray("HasIntersection", DWord(1)), kMismatch, "HasIntersectionPattern"},
      {DWord(1), OnDWord("HasIntersection", Array()), kMismatch, "HasIntersectionPattern"},
      {Text(u"a"), OnText("DirectRelative", Nil()), kMismatch, "DirectRelativePattern"},
  };
  for (const auto& row : kRefused) {
    const Thrown thrown = Catch([&] { Util::Matches(*row.source, *row.pattern); });
    EXPECT_EQ(thrown.error, row.error);
    EXPECT_EQ(thrown.place.substr(thrown.place.find(' ') + 1), row.function);
    EXPECT_TRUE(thrown.is_traced);
  }
  // Not met: behind a trait or a property that does not hold.
  Check({{DWord(1), With(OnDWord("Less", DWord(1)), "NoSuch", Nil()), false},
         {Composite("a", DWord(1), "b", DWord(1)),
          Composite("a", DWord(2), "b", OnDWord("NoSuch", Nil())), false}});
}

TEST(Matches, AllocatesNothingAndSurvivesTheDeepestPattern) {
  const OwnedUnit source =
      With(Composite("Name", Text(u"machine with a long name"), "Tags", Array(DWord(1), DWord(2))),
           "Is", Text(u"InstanceManagement::Machine"));
  const auto pattern = [](unsigned int tag) {
    return With(Composite("Name", OnText("Like", Text(u"%with%")), "Tags",
                          OnArray("ValueIncludedInArray", DWord(tag))),
                "Is", Text(u"InstanceManagement::Machine"));
  };
  const OwnedUnit fitting = pattern(2), other = pattern(3);
  const TestSupport::AllocationWatch watch;
  EXPECT_TRUE(Util::Matches(*source, *fitting));
  EXPECT_FALSE(Util::Matches(*source, *other));
  EXPECT_EQ(watch.GetCount(), 0u);

  OwnedUnit deep_source = DWord(1), deep_pattern = DWord(1), negation = DWord(1);
  for (unsigned int i = 1; i < kMaxUnitDepth; ++i) {
    deep_source = Composite("a", std::move(deep_source));
    deep_pattern = Composite("a", std::move(deep_pattern));
    negation = OnDWord("Not", std::move(negation));
  }
  EXPECT_TRUE(Util::Matches(*deep_source, *deep_pattern));
  EXPECT_FALSE(Util::Matches(*DWord(1), *negation)) << "999 times Not";
}

}  // namespace
}  // namespace Por::Test
