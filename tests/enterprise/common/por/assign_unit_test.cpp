#include "enterprise/common/por/assign_unit.h"

#include <gtest/gtest.h>

#include <limits>
#include <utility>

#include "enterprise/common/por/exclude_trait_unit.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"

namespace Por::Test {
namespace {

void ExpectAssigned(OwnedUnit target, OwnedUnit source, OwnedUnit result) {
  Util::AssignUnit(*target, *source, Factory());
  EXPECT_TRUE(Util::UnitEqual(*target, *result));
}

void ExpectRefused(OwnedUnit target, OwnedUnit source, std::uint32_t code) {
  const OwnedUnit before = Util::CopyUnit(*target, Factory());
  try {
    Util::AssignUnit(*target, *source, Factory());
    ADD_FAILURE() << "not refused";
  } catch (const ModuleError& error) {
    EXPECT_EQ(error.GetCode(), code);
  }
  EXPECT_TRUE(Util::UnitEqual(*target, *before)) << "a refused assignment changes nothing";
}

TEST(AssignUnit, SetsValuesOfTheSameKindInPlace) {
  ExpectAssigned(Nil(), Nil(), Nil());
  ExpectAssigned(DWord(1), DWord(2), DWord(2));
  ExpectAssigned(Text(u"a"), Text(u"bc"), Text(u"bc"));
  ExpectAssigned(Guid(1), Guid(2), Guid(2));
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
  ExpectRefused(DWord(1), With(DWord(2), "y", Nil()), 0xFA0012);
  ExpectRefused(With(DWord(1), "y", DWord(1)), With(DWord(2), "y", DWord(2)), 0xFA0012);
  ExpectRefused(Composite("a", DWord(1), "b", DWord(1)),
                Composite("a", DWord(2), "b", With(DWord(2), "y", Nil())), 0xFA0012);
  // Traits come before kinds.
  ExpectRefused(DWord(1), With(QWord(2), "y", Nil()), 0xFA0012);
}

TEST(AssignUnit, RefusesOtherShapesBeforeItChangesAnything) {
  ExpectRefused(QWord(1), DWord(2), 0xFA0011);
  ExpectRefused(Text(u"a"), Nil(), 0xFA0011);
  ExpectRefused(Composite(), Array(), 0xFA0011);
  ExpectRefused(Composite("a", DWord(1), "b", DWord(1)), Composite("a", DWord(2), "b", QWord(2)),
                0xFA0011);
  ExpectRefused(Composite("a", DWord(1)), Composite("a", DWord(2), "b", DWord(2)), 0xFA0010);
  ExpectRefused(Composite("a", Composite("x", DWord(1))), Composite("a", Composite("y", DWord(2))),
                0xFA0010);
}

TEST(AssignUnit, SourceMayBeTheTargetOrLieInsideIt) {
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

  // Through a decorator the address tells nothing.
  const OwnedUnit shown = With(Array(DWord(1)), "t", Nil());
  const View::ExcludeTraitUnit view(*shown, "t");
  Util::AssignUnit(*shown, view, Factory());
  EXPECT_TRUE(Util::UnitEqual(*shown, *With(Array(DWord(1)), "t", Nil())));
}

TEST(AssignUnit, SharesTheChainsOfErrorsAlsoBesideArrays) {
  const Common::Error error(5, Common::LineTag{});
  const auto make = [](const Common::Error& value) {
    return Composite("e", Factory().CreateError(value), "l", Array(DWord(1)));
  };
  const OwnedUnit source = make(error);
  const OwnedUnit target = make(Common::Error(6, Common::LineTag{}));
  Util::AssignUnit(*target, *source, Factory());
  const auto record = [](const OwnedUnit& unit) {
    return Util::GetValue<Common::Error>(Util::FindProperty(std::as_const(*unit), "e")->GetValue(),
                                         Common::Error())
        .GetRecord();
  };
  EXPECT_EQ(record(target), record(source));
  EXPECT_NE(record(target), nullptr);
}

TEST(AssignUnit, SourceMayHoldTheTarget) {
  const OwnedUnit array = Array(DWord(1), Array(DWord(2)));
  Util::AssignUnit(*Util::GetArrayElement(*array, 1), *array, Factory());
  EXPECT_TRUE(Util::UnitEqual(*array, *Array(DWord(1), Array(DWord(1), Array(DWord(2))))));
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
