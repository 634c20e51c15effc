#include "enterprise/common/por/matches.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <typeinfo>
#include <utility>

#include "core/common/text.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_helpers.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/support/allocation_watch.h"

namespace Por::Test {
namespace {

// Rows of source, pattern, expectation and, if odd, the reason.
class MatchesTable {
 public:
  void Add(OwnedUnit source, OwnedUnit pattern, bool expected, const char* reason = "") {
    ++row_;
    EXPECT_EQ(Util::Matches(*source, *pattern), expected) << "row " << row_ << ' ' << reason;
  }

 private:
  int row_ = 0;
};

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

const double kNan = std::numeric_limits<double>::quiet_NaN();

TEST(Matches, PatternsWithoutTraitsCompareValues) {
  MatchesTable table;
  table.Add(DWord(7), Nil(), true, "an empty pattern matches any kind");
  table.Add(Composite(), Nil(), true);
  table.Add(DWord(7), DWord(7), true);
  table.Add(QWord(7), DWord(7), false, "kinds differ");
  table.Add(With(DWord(7), "t", Nil()), DWord(7), true, "traits of the source don't count");
  table.Add(Double(kNan), Double(kNan), false);
  table.Add(Array(DWord(1)), Array(DWord(1)), true);
  table.Add(Array(DWord(1)), Array(Nil()), false, "elements are no patterns");
  table.Add(Array(With(DWord(1), "t", Nil())), Array(DWord(1)), false,
            "elements compare with their traits");
}

TEST(Matches, KindsMustAgreeWithTraitsToo) {
  MatchesTable table;
  table.Add(DWord(7), OnDWord("AnyValue", Nil()), true);
  table.Add(QWord(7), OnDWord("AnyValue", Nil()), false);
  table.Add(DWord(7), With(Nil(), "AnyValue", Nil()), false);
  table.Add(Nil(), With(Nil(), "AnyValue", Nil()), true);
  table.Add(QWord(7), With(DWord(0), "NoSuchPredicate", Nil()), false,
            "the kinds come before the traits");
}

TEST(Matches, CompositesDemandTheirProperties) {
  MatchesTable table;
  table.Add(Composite(), Composite(), true);
  table.Add(Composite("a", DWord(1)), Composite(), true, "other properties are ignored");
  table.Add(Array(), Composite(), false);
  table.Add(Composite("a", DWord(1), "b", DWord(2)), Composite("b", DWord(2)), true);
  table.Add(Composite("a", DWord(1)), Composite("a", DWord(2)), false);
  table.Add(Composite("a", DWord(1)), Composite("b", Nil()), false, "a missing property");
  table.Add(Composite("a", Composite("x", DWord(1), "y", DWord(2))),
            Composite("a", Composite("y", OnDWord("Greater", DWord(1)))), true);
  table.Add(Composite("a", Composite("x", DWord(1), "y", DWord(2))),
            Composite("a", Composite("y", OnDWord("Greater", DWord(2)))), false);
  table.Add(With(Composite("a", DWord(1)), "Is", Text(u"T")),
            With(Composite("a", DWord(1)), "Is", Text(u"T")), true);
  table.Add(With(Composite("a", DWord(1)), "Is", Text(u"T")),
            With(Composite("a", DWord(2)), "Is", Text(u"T")), false,
            "with traits the properties count as well");
  table.Add(With(Composite("a", DWord(1)), "Is", Text(u"U")),
            With(Composite("a", DWord(1)), "Is", Text(u"T")), false);
}

TEST(Matches, TraitsAreAConjunction) {
  MatchesTable table;
  const auto range = [] { return With(OnDWord("Greater", DWord(5)), "Less", DWord(9)); };
  table.Add(DWord(5), range(), false);
  table.Add(DWord(6), range(), true);
  table.Add(DWord(9), range(), false);
  table.Add(DWord(6), With(OnDWord("Less", DWord(9)), "Less", DWord(6)), false,
            "a name may occur twice");
}

TEST(Matches, OrderPredicatesAskForTheSameKind) {
  MatchesTable table;
  struct Row {
    Name name;
    bool below, equal, above;
  };
  const Row rows[] = {{"Greater", false, false, true},
                      {"GreaterEqual", false, true, true},
                      {"Less", true, false, false},
                      {"LessEqual", true, true, false},
                      {"EqualValue", false, true, false}};
  for (const Row& row : rows) {
    table.Add(DWord(4), OnDWord(row.name, DWord(5)), row.below, row.name.GetText());
    table.Add(DWord(5), OnDWord(row.name, DWord(5)), row.equal, row.name.GetText());
    table.Add(DWord(6), OnDWord(row.name, DWord(5)), row.above, row.name.GetText());
    table.Add(DWord(4), OnDWord(row.name, QWord(5)), false, "another kind");
    table.Add(Text(u"b"), OnText(row.name, Text(u"a")), row.above, "texts");
  }
  // The order counts traits where the values are equal, the equality doesn't.
  table.Add(With(DWord(5), "t", Nil()), OnDWord("Greater", DWord(5)), true);
  table.Add(With(DWord(5), "t", Nil()), OnDWord("LessEqual", DWord(5)), false);
  table.Add(With(DWord(5), "t", Nil()), OnDWord("EqualValue", DWord(5)), true);
  // Anything with a NaN compares as 1.
  table.Add(Double(1), With(Double(0), "Greater", Double(kNan)), true);
  table.Add(Double(kNan), With(Double(0), "GreaterEqual", Double(1)), true);
  table.Add(Double(1), With(Double(0), "LessEqual", Double(kNan)), false);
  table.Add(Double(kNan), With(Double(0), "EqualValue", Double(kNan)), false);
}

TEST(Matches, BetweenIncludesBothEnds) {
  MatchesTable table;
  const auto between = [](OwnedUnit from, OwnedUnit to) {
    return OnDWord("Between", Composite("From", std::move(from), "To", std::move(to)));
  };
  table.Add(DWord(2), between(DWord(3), DWord(5)), false);
  table.Add(DWord(3), between(DWord(3), DWord(5)), true);
  table.Add(DWord(5), between(DWord(3), DWord(5)), true);
  table.Add(DWord(6), between(DWord(3), DWord(5)), false);
  table.Add(DWord(4), between(DWord(5), DWord(3)), false, "an empty range");
  table.Add(DWord(4), between(QWord(3), QWord(5)), false, "another kind");
  table.Add(DWord(4),
            OnDWord("Between", Array(Composite("first", Text(u"From"), "second", DWord(3)),
                                     Composite("first", Text(u"To"), "second", DWord(5)))),
            true, "the bounds may stand in a map");
}

TEST(Matches, InclusionIsByUnitOrByValue) {
  MatchesTable table;
  const auto marked = [](unsigned int value) { return With(DWord(value), "t", Nil()); };
  table.Add(DWord(2), OnDWord("In", Array(DWord(1), DWord(2))), true);
  table.Add(DWord(3), OnDWord("In", Array(DWord(1), DWord(2))), false);
  table.Add(DWord(2), OnDWord("In", Array(QWord(2))), false);
  table.Add(marked(2), OnDWord("In", Array(DWord(2))), false, "traits count");
  table.Add(marked(2), OnDWord("In", Array(DWord(2), marked(2))), true);
  table.Add(marked(2), OnDWord("ValueIn", Array(DWord(2))), true, "traits don't count");
  table.Add(DWord(2), OnDWord("In", DWord(2)), false, "no array has no elements");
  table.Add(DWord(2), OnDWord("ValueIn", Array()), false);

  table.Add(Array(DWord(1), DWord(2)), OnArray("IncludedInArray", DWord(2)), true);
  table.Add(Array(DWord(1), marked(2)), OnArray("IncludedInArray", DWord(2)), false);
  table.Add(Array(DWord(1), marked(2)), OnArray("ValueIncludedInArray", DWord(2)), true);
  table.Add(Array(), OnArray("ValueIncludedInArray", DWord(2)), false);
  table.Add(DWord(2), OnDWord("IncludedInArray", DWord(2)), false);

  table.Add(Array(DWord(1), marked(2)), OnArray("HasIntersection", Array(DWord(3), DWord(2))), true,
            "by value");
  table.Add(Array(DWord(1)), OnArray("HasIntersection", Array(DWord(3), QWord(1))), false);
  table.Add(Array(), OnArray("HasIntersection", Array(DWord(3))), false);
  table.Add(Array(DWord(3)), OnArray("HasIntersection", Array()), false);
}

TEST(Matches, TextPredicates) {
  MatchesTable table;
  const auto searchable = [](OwnedUnit array) {
    return With(std::move(array), "Searchable", Nil());
  };
  table.Add(Text(u"backup"), OnText("Like", Text(u"b%_p")), true);
  table.Add(Text(u"abab"), OnText("Like", Text(u"%ab")), false, "no way back");
  table.Add(Text(u"backup"), OnText("Like", Text(u"")), true);
  table.Add(DWord(1), OnDWord("Like", Text(u"")), false, "no text");
  table.Add(searchable(Array(DWord(1), Text(u"x"), Text(u"ab"))), OnArray("Like", Text(u"a%")),
            true, "elements that are no texts are skipped");
  table.Add(searchable(Array(Text(u"x"))), OnArray("Like", Text(u"a%")), false);
  table.Add(searchable(Array()), OnArray("Like", Text(u"%")), false);
  table.Add(Array(Text(u"ab")), OnArray("Like", Text(u"a%")), false, "not searchable");
  table.Add(With(Text(u"ab"), "Searchable", Nil()), OnText("Like", Text(u"a%")), true);

  table.Add(Text(u"/vol/a"), OnText("DirectRelative", Text(u"/vol")), true);
  table.Add(Text(u"/vo"), OnText("DirectRelative", Text(u"/vol")), false, "the source is shorter");
  table.Add(Text(u""), OnText("DirectRelative", Text(u"")), true);
  table.Add(DWord(1), OnDWord("DirectRelative", Text(u"")), false, "no text");
}

TEST(Matches, TraitPredicates) {
  MatchesTable table;
  for (const Name& name : {Name("Is"), Name("PrimaryKey"), Name("ForeignKey"), Name("Source")}) {
    const auto source = [&] { return With(With(DWord(1), name, Text(u"A")), name, Text(u"B")); };
    table.Add(source(), OnDWord(name, Text(u"B")), true, name.GetText());
    table.Add(source(), OnDWord(name, With(Text(u"B"), "t", Nil())), true, "by value");
    table.Add(source(), OnDWord(name, Text(u"C")), false, name.GetText());
    table.Add(DWord(1), OnDWord(name, Text(u"B")), false, name.GetText());
    table.Add(source(), OnDWord(name, With(Text(u"C"), "AnyValue", Nil())), name == "Source",
              "any value will do for Source alone");
    table.Add(With(DWord(1), "Other", Nil()), OnDWord(name, With(Nil(), "AnyValue", Nil())), false,
              name.GetText());
  }
}

TEST(Matches, NotAndOrHoldPatterns) {
  MatchesTable table;
  table.Add(DWord(1), OnDWord("Not", DWord(2)), true);
  table.Add(DWord(2), OnDWord("Not", DWord(2)), false);
  table.Add(DWord(2), OnDWord("Not", QWord(2)), true, "another kind doesn't match");
  table.Add(DWord(2), OnDWord("Not", Nil()), false, "nil matches anything");

  table.Add(DWord(2), OnDWord("Or", Array(DWord(1), DWord(2))), true);
  table.Add(DWord(3), OnDWord("Or", Array(DWord(1), DWord(2))), false);
  table.Add(DWord(3), OnDWord("Or", Array(DWord(1), OnDWord("Greater", DWord(2)))), true);
  table.Add(DWord(3), OnDWord("Or", Array()), true, "no elements");
  table.Add(DWord(3), OnDWord("Or", DWord(4)), true, "no array");
  table.Add(DWord(3), OnDWord("Or", Array(DWord(3), OnDWord("NoSuch", Nil()))), true,
            "the first true ends it");
}

struct Failure {
  std::uint32_t code;
  std::string message;
  std::string function;
  bool is_module_error;
};

Failure Fail(OwnedUnit source, OwnedUnit pattern) {
  try {
    Util::Matches(*source, *pattern);
  } catch (const Common::Error& error) {
    std::string message;
    Common::ToUtf8(message, error.GetMessage().c_str());
    return {error.GetCode(), message, error.GetLineTag().function,
            typeid(error) == typeid(ModuleError)};
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

TEST(Matches, IllFormedPatternsThrowWhereTheWalkMeetsThem) {
  const auto expect = [](const Failure& failure, std::uint32_t code, const char* message,
                         const char* function, bool is_module_error = false) {
    EXPECT_EQ(failure.code, code);
    EXPECT_EQ(failure.message, message);
    EXPECT_EQ(failure.function, function);
    EXPECT_EQ(failure.is_module_error, is_module_error);
  };
  expect(Fail(DWord(1), OnDWord("anyvalue", Nil())), 0xFA000E,
         "POR: Name 'anyvalue' of the trait is not registered for pattern.", "GetPatternByName");
  expect(Fail(DWord(1), OnDWord("Between", Composite("From", DWord(1), "To", QWord(2)))), 0xFA000E,
         "POR: Failed to check range inclusion.", "ValidateBetweenPattern");
  expect(Fail(QWord(1), With(QWord(0), "Between", Composite("From", DWord(1)))), 0xFA0020,
         "POR: Element 'To' cannot be found.", "EnsureUnitIsValid", true);
  expect(Fail(DWord(1), OnDWord("Between", DWord(1))), 0xFA0020,
         "POR: Element 'From' cannot be found.", "EnsureUnitIsValid", true);
  constexpr char kMismatch[] = "POR: Object internal structure mismatch.";
  expect(Fail(DWord(1), OnDWord("Like", DWord(1))), 0xFA000E, kMismatch, "ValidateLikePattern");
  expect(Fail(Array(), OnArray("HasIntersection", DWord(1))), 0xFA000E, kMismatch,
         "HasIntersectionPattern");
  expect(Fail(DWord(1), OnDWord("HasIntersection", Array())), 0xFA000E, kMismatch,
         "HasIntersectionPattern");
  expect(Fail(Text(u"a"), OnText("DirectRelative", Nil())), 0xFA000E, kMismatch,
         "DirectRelativePattern");
  // Not met: behind a trait or a property that does not hold.
  EXPECT_FALSE(Util::Matches(*DWord(1), *With(OnDWord("Less", DWord(1)), "NoSuch", Nil())));
  EXPECT_FALSE(Util::Matches(*Composite("a", DWord(1), "b", DWord(1)),
                             *Composite("a", DWord(2), "b", OnDWord("NoSuch", Nil()))));
}

TEST(Matches, AllocatesNothingAndSurvivesTheDeepestPattern) {
  const OwnedUnit source = With(Composite("Name", Text(u"machine with a long name"), "Size",
                                          QWord(5), "Tags", Array(DWord(1), DWord(2))),
                                "Is", Text(u"InstanceManagement::Machine"));
  const auto pattern = [](unsigned long long size) {
    return With(Composite("Name", OnText("Like", Text(u"%with%")), "Size",
                          With(QWord(0), "Between", Composite("From", QWord(size), "To", QWord(9))),
                          "Tags", OnArray("ValueIncludedInArray", DWord(2))),
                "Is", Text(u"InstanceManagement::Machine"));
  };
  const OwnedUnit fitting = pattern(5), other = pattern(6);
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
