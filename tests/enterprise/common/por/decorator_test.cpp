#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "enterprise/common/por/exclude_trait_unit.h"
#include "enterprise/common/por/property_removing_unit_decorator.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visit_value.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/support/allocation_watch.h"

namespace Por::Test {
namespace {

template <class Function>
void OnComposite(const View::Unit& unit, Function function) {
  EXPECT_TRUE(Util::Detail::VisitValue<View::CompositeValue>(unit, function));
}

// The names that a walk and an iterator show; both must agree.
std::string PropertyNames(const View::Unit& unit) {
  std::string walked, iterated;
  OnComposite(unit, [&](const View::CompositeValue& composite) {
    auto processor = MakeProcessor<const View::Property>(
        [&](const View::Property& property) { walked += property.GetName().GetText(); });
    composite.ForEach(processor);
    auto iterator = composite.GetIterator();
    for (; iterator.IsValid(); iterator.Advance()) {
      iterated += iterator.Current().GetName().GetText();
    }
    iterator.Advance();
    EXPECT_FALSE(iterator.IsValid());
  });
  EXPECT_EQ(walked, iterated);
  return walked;
}

TEST(ExcludeTraitUnit, HidesTheTraitsOfOneNameAndNests) {
  const OwnedUnit unit = With(
      With(With(With(DWord(7), "Id", DWord(1)), "Id", DWord(2)), "Kind", DWord(3)), "z", Nil());
  const View::ExcludeTraitUnit view(*unit, "Id");
  EXPECT_TRUE(Util::UnitEqual(view, *With(With(DWord(7), "Kind", DWord(3)), "z", Nil())));
  EXPECT_FALSE(Util::HasTrait(view, "Id"));
  EXPECT_TRUE(Util::HasTrait(view, "Kind"));
  const View::ExcludeTraitUnit nested(view, "z");
  EXPECT_TRUE(
      Util::UnitEqual(*Util::CopyUnit(nested, Factory()), *With(DWord(7), "Kind", DWord(3))));
  EXPECT_FALSE(Util::HasTrait(nested, "Id"));
  const View::SieveTraitsUnit only(*unit, "Kind", false);
  EXPECT_TRUE(Util::UnitEqual(only, *With(DWord(7), "Kind", DWord(3))));
}

TEST(PropertyRemovingUnitDecorator, HidesThePropertyWhereverItStands) {
  const auto shown = [](const OwnedUnit& unit, const Name& hidden) {
    return PropertyNames(View::PropertyRemovingUnitDecorator(*unit, hidden));
  };
  const OwnedUnit unit = Composite("a", DWord(1), "b", DWord(2), "c", DWord(3));
  EXPECT_EQ(shown(unit, "a"), "bc");
  EXPECT_EQ(shown(unit, "b"), "ac");
  EXPECT_EQ(shown(unit, "c"), "ab");
  EXPECT_EQ(shown(unit, "d"), "abc");
  EXPECT_EQ(shown(Composite("a", DWord(1)), "a"), "");
  EXPECT_EQ(shown(Composite(), "a"), "");
}

TEST(PropertyRemovingUnitDecorator, FindsTheOthersOnly) {
  const OwnedUnit unit = Composite("Id", DWord(1), "Stamp", DWord(2));
  const View::PropertyRemovingUnitDecorator view(*unit, "Stamp");
  int calls = 0;
  auto count = MakeProcessor<const View::Property>([&](const View::Property&) { ++calls; });
  OnComposite(view, [&](const View::CompositeValue& composite) {
    EXPECT_FALSE(composite.Find("Stamp", count));
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(composite.Find("Id", count));
    EXPECT_FALSE(composite.Find("Other", count));
    EXPECT_EQ(calls, 1);
    // The iterator is valid behind the visit, and its copy walks on the same position.
    auto iterator = composite.GetIterator();
    auto copy = iterator;
    copy.Advance();
    EXPECT_FALSE(iterator.IsValid());
  });
}

TEST(PropertyRemovingUnitDecorator, ShowsTheRestUnchanged) {
  const auto expect_shown = [](OwnedUnit unit, OwnedUnit shown) {
    EXPECT_TRUE(Util::UnitEqual(View::PropertyRemovingUnitDecorator(*unit, "Stamp"), *shown));
  };
  // Traits of that name stay, as does all that is not at the top.
  expect_shown(With(DWord(7), "Stamp", DWord(1)), With(DWord(7), "Stamp", DWord(1)));
  expect_shown(Array(Composite("Stamp", DWord(1))), Array(Composite("Stamp", DWord(1))));
  expect_shown(Composite("Stamp", DWord(1), "x", Composite("Stamp", DWord(2))),
               Composite("x", Composite("Stamp", DWord(2))));
}

TEST(PropertyRemovingUnitDecorator, NestsAndReadsWithoutAllocation) {
  const OwnedUnit unit = With(Composite("a", DWord(1), "b", DWord(2), "c", DWord(3)), "t", Nil());
  const OwnedUnit expected = Composite("b", DWord(2));
  const TestSupport::AllocationWatch watch;
  const View::PropertyRemovingUnitDecorator inner(*unit, "a");
  const View::ExcludeTraitUnit middle(inner, "t");
  const View::PropertyRemovingUnitDecorator outer(middle, "c");
  EXPECT_TRUE(Util::UnitEqual(outer, *expected));
  EXPECT_EQ(watch.GetCount(), 0u);
  EXPECT_EQ(PropertyNames(outer), "b");
}

}  // namespace
}  // namespace Por::Test
