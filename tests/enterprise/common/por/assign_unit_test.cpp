#include "enterprise/common/por/assign_unit.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>

#include "enterprise/common/por/exclude_trait_unit.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"

namespace Por::Test {
namespace {

void ExpectAssigned(OwnedUnit target, OwnedUnit source, OwnedUnit result) {
  Util::AssignUnit(*target, *source, Factory());
  EXPECT_TRUE(Util::UnitEqual(*target, *result));
}

void ExpectRefused(OwnedUnit target, OwnedUnit source, const char* error) {
  const OwnedUnit before = Util::CopyUnit(*target, Factory());
  const Thrown thrown = Catch([&] { Util::AssignUnit(*target, *source, Factory()); });
  EXPECT_EQ(thrown.error, std::string("ModuleError ").append(error));
  EXPECT_TRUE(Util::UnitEqual(*target, *before)) << "a refused assignment changes nothing";
}

constexpr char kTraits[] = "fa0012: POR: Cannot assign units with different traits.";
constexpr char kTypes[] = "fa0011: POR: Cannot assign units of different types.";
constexpr char kProperties[] = "fa0010: POR: Cannot assign units with different properties.";

TEST(AssignUnit, SetsValuesOfTheSameKindInPlace) {
  ExpectAssigned(Nil(), Nil(), Nil());
  ExpectAssigned(DWord(1), DWord(2), DWord(2));
  ExpectAssigned(Text(u"a"), Text(u"bc"), Text(u"bc"));
  ExpectAssigned(Guid({1}), Guid({2}), Guid({2}));
  ExpectAssigned(Array(DWord(1), DWord(2), DWord(3), DWord(4), DWord(5)),
                 Array(Text(u"x"), With(DWord(7), "t", Nil()), Array()),
                 Array(Text(u"x"), With(DWord(7), "t", Nil()), Array()));
  ExpectAssigned(Composite("a", DWord(1), "b", Composite("c", DWord(2), "d", Array(Nil()))),
                 Composite("b", Composite("d", Array(DWord(3)))),
                 Composite("a", DWord(1), "b", Composite("c", DWord(2), "d", Array(DWord(3)))));
}

TEST(AssignUnit, LeavesTraitsAlone) {
  ExpectAssigned(With(With(DWord(1), "x", DWord(5)), "y", Nil()), With(DWord(2), "y", Nil()),
                 With(With(DWord(2), "x", DWord(5)), "y", Nil()));
  ExpectRefused(DWord(1), With(DWord(2), "y", Nil()), kTraits);
  ExpectRefused(With(DWord(1), "y", DWord(1)), With(DWord(2), "y", DWord(2)), kTraits);
  ExpectRefused(Composite("a", DWord(1), "b", DWord(1)),
                Composite("a", DWord(2), "b", With(DWord(2), "y", Nil())), kTraits);
  // Traits come before kinds.
  ExpectRefused(DWord(1), With(QWord(2), "y", Nil()), kTraits);
}

TEST(AssignUnit, RefusesOtherShapesBeforeItChangesAnything) {
  ExpectRefused(QWord(1), DWord(2), kTypes);
  ExpectRefused(Text(u"a"), Nil(), kTypes);
  ExpectRefused(Composite(), Array(), kTypes);
  ExpectRefused(Composite("a", DWord(1), "b", DWord(1)), Composite("a", DWord(2), "b", QWord(2)),
                kTypes);
  ExpectRefused(Composite("a", DWord(1)), Composite("a", DWord(2), "b", DWord(2)), kProperties);
  ExpectRefused(Composite("a", Composite("x", DWord(1))), Composite("a", Composite("y", DWord(2))),
                kProperties);
}

TEST(AssignUnit, SourceAndTargetMayBeTheSameOrHoldEachOther) {
  const OwnedUnit array = Array(Array(DWord(1), DWord(2)), DWord(3));
  Util::AssignUnit(*array, *array, Factory());
  EXPECT_TRUE(Util::UnitEqual(*array, *Array(Array(DWord(1), DWord(2)), DWord(3))));
  Util::AssignUnit(*array, *Util::GetArrayElement(*array, 0), Factory());
  EXPECT_TRUE(Util::UnitEqual(*array, *Array(DWord(1), DWord(2))));

  // The composite that is walked dies with the array that its first property replaces.
  const OwnedUnit composite =
      Composite("p", Array(Composite("p", Array(DWord(1)), "q", DWord(2))), "q", DWord(3));
  const View::Unit& list = Util::FindProperty(*composite, "p")->GetValue();
  Util::AssignUnit(*composite, *Util::GetArrayElement(list, 0), Factory());
  EXPECT_TRUE(Util::UnitEqual(*composite, *Composite("p", Array(DWord(1)), "q", DWord(2))));

  const OwnedUnit outer = Array(DWord(1), Array(DWord(2)));
  Util::AssignUnit(*Util::GetArrayElement(*outer, 1), *outer, Factory());
  EXPECT_TRUE(Util::UnitEqual(*outer, *Array(DWord(1), Array(DWord(1), Array(DWord(2))))));

  // Through a decorator the address tells nothing.
  const OwnedUnit shown = With(Array(DWord(1)), "t", Nil());
  const View::ExcludeTraitUnit view(*shown, "t");
  Util::AssignUnit(*shown, view, Factory());
  EXPECT_TRUE(Util::UnitEqual(*shown, *With(Array(DWord(1)), "t", Nil())));
}

TEST(AssignUnit, SharesTheChainsOfErrorsAlsoBesideArrays) {
  const Common::Error error(5, Common::LineTag{});
  const auto make = [](const Common::Error& value) {
    return Composite("e", ErrorUnit(value), "l", Array(DWord(1)));
  };
  const OwnedUnit source = make(error);
  const OwnedUnit target = make(Common::Error(6, Common::LineTag{}));
  Util::AssignUnit(*target, *source, Factory());
  const auto record = [](const OwnedUnit& unit) {
    return Util::GetValue<Common::Error>(Util::FindProperty(*unit, "e")->GetValue()).GetRecord();
  };
  EXPECT_EQ(record(target), record(source));
  EXPECT_NE(record(target), nullptr);
}

TEST(AssignUnit, ComparesATraitOfTheTargetItselfAsEqual) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const OwnedUnit unit = Composite("a", With(DWord(1), "t", Double(nan)));
  EXPECT_NO_THROW(Util::AssignUnit(*unit, *unit, Factory()));
  const OwnedUnit other = Composite("a", With(DWord(2), "t", Double(nan)));
  EXPECT_THROW(Util::AssignUnit(*unit, *other, Factory()), ModuleError);
}

}  // namespace
}  // namespace Por::Test
