#include "enterprise/common/por/unit_accumulator.h"

#include <gtest/gtest.h>

#include "enterprise/common/por/module_error.h"
#include "tests/enterprise/common/por/stream_support.h"

namespace Por::Util {
namespace {

using Streams::CodeOf;
using Streams::FromHex;
using Streams::Make;
using Streams::ToHex;
using Streams::Write;

using Calls = void (*)(const UnitConstructor&);

// The stream of what the calls make, "" for no unit.
std::string Made(Calls calls) {
  const OwnedUnit unit = Make(calls);
  return unit == nullptr ? "" : ToHex(Write(*unit));
}

std::uint32_t Raised(Calls calls) {
  return CodeOf([&] { Make(calls); });
}

std::string Hex(const char* text) {
  return ToHex(FromHex(text));
}

TEST(UnitAccumulator, TheLastRootIsTheResult) {
  EXPECT_EQ(Made([](const UnitConstructor&) {}), "");
  EXPECT_EQ(Made([](const UnitConstructor& u) { u.Composite(); }), "");
  EXPECT_EQ(Made([](const UnitConstructor& u) { u.Composite().End().Byte(1).End(); }),
            Hex("55 02 01 45"));
  // An empty root leaves nothing of an earlier one.
  EXPECT_EQ(Made([](const UnitConstructor& u) { u.Byte(1).End().End(); }), "");
  const UnitConstructor unit(*GetStaticUnitFactory());
  unit.Nil().End();
  EXPECT_NE(unit.TakeResult(), nullptr);
  EXPECT_EQ(unit.TakeResult(), nullptr);
}

TEST(UnitAccumulator, AValueBehindARootIsDroppedUnlessTheRootIsAnArray) {
  EXPECT_EQ(Made([](const UnitConstructor& u) { u.Byte(1).Byte(2).Composite().End(); }),
            Hex("55 02 01 45"));
  EXPECT_EQ(Made([](const UnitConstructor& u) { u.Array().Byte(1).End().Array().End().End(); }),
            Hex("55 41 55 02 01 45 55 41 45 45"));
}

TEST(UnitAccumulator, AValueTakesThePlaceOfNil) {
  EXPECT_EQ(Made([](const UnitConstructor& u) { u.Nil().Byte(1).End(); }), Hex("55 02 01 45"));
  EXPECT_EQ(
      Made([](const UnitConstructor& u) { u.Composite().Property("a").Nil().Byte(1).End().End(); }),
      Hex("55 43 50 0D 02000000 6100 55 02 01 45 45"));
  // A property that is there already goes in again by name.
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Nil().End().Property("a").Byte(1).End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 02 01 45 45"));
  // A trait becomes a property, if there is a composite to take it.
  EXPECT_EQ(
      Made([](const UnitConstructor& u) { u.Composite().Trait("t").Nil().Byte(1).End().End(); }),
      Hex("55 43 50 0D 02000000 7400 55 02 01 45 45"));
  EXPECT_EQ(Raised([](const UnitConstructor& u) { u.Byte(2).Trait("t").Nil().Byte(1).End(); }),
            kPorTypeMismatch);
  // An element would have to become a property of the array.
  EXPECT_EQ(Raised([](const UnitConstructor& u) { u.Array().Nil().Byte(1).End(); }),
            kPorTypeMismatch);
}

TEST(UnitAccumulator, ASecondValueOfAPropertyNeedsItsOwnEndAndIsDropped) {
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Byte(1).Byte(2).End().End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 02 01 45 45"));
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Byte(1).Byte(2).End().End();
            }),
            "")
      << "one End short";
}

TEST(UnitAccumulator, AnExistingPropertyIsChangedInPlace) {
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Byte(1).Trait("t").Nil().End().End();
              u.Property("a").Byte(2).End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 02 02 54 0D 02000000 7400 55 00 45 45 45"));
  EXPECT_EQ(Raised([](const UnitConstructor& u) {
              u.Composite().Property("a").Byte(1).End().Property("a").String(u"x").End();
            }),
            kPorAssignTypes);
  // A composite stays, whatever is put over it, and takes further properties.
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Composite().Property("x").Byte(1).End().End();
              u.Property("a").Byte(9).Composite().Property("y").Byte(2).End().End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 43"
                "50 0D 02000000 7800 55 02 01 45 50 0D 02000000 7900 55 02 02 45 45 45"));
}

TEST(UnitAccumulator, AnExistingArrayIsOverwrittenFromItsFirstElement) {
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Array().Byte(1).End().Byte(2).End().End();
              u.Property("a").Array().Byte(8).End().End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 41 55 02 08 45 55 02 02 45 45 45"))
      << "what is not reached stays";
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Array().Byte(1).End().End();
              u.Property("a").Array().Byte(8).End().Byte(9).End().End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 41 55 02 08 45 55 02 09 45 45 45"))
      << "more is appended";
  EXPECT_EQ(Raised([](const UnitConstructor& u) {
              u.Composite().Property("a").Array().Byte(1).End().End();
              u.Property("a").Array().Word(8).End();
            }),
            kPorAssignTypes);
  // Elements of an element that is an array are no elements of the existing one.
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Array().Array().Byte(1).End().End().End();
              u.Property("a").Array().Array().Byte(2).End().End().End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 41 55 41 55 02 01 45 55 02 02 45 45 45 45"));
}

TEST(UnitAccumulator, AnArrayOverAnExistingNilOrScalarMakesNone) {
  // The value behind it takes the place of the nil.
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Nil().End();
              u.Property("a").Array().Byte(1).End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 02 01 45 45"));
  EXPECT_EQ(Made([](const UnitConstructor& u) {
              u.Composite().Property("a").Byte(1).End();
              u.Property("a").Array().Byte(2).End().End().End();
            }),
            Hex("55 43 50 0D 02000000 6100 55 02 01 45 45"));
}

TEST(UnitAccumulator, CallsThatMakeNoSenseRaise) {
  EXPECT_EQ(Raised([](const UnitConstructor& u) { u.Property("a"); }), kPorNullUnit);
  EXPECT_EQ(Raised([](const UnitConstructor& u) { u.Trait("a").Nil().End(); }), kPorNullUnit);
  EXPECT_EQ(Raised([](const UnitConstructor& u) { u.Composite().Property("a").End(); }),
            kPorNullUnit);
  EXPECT_EQ(Raised([](const UnitConstructor& u) { u.Nil().Trait("a").End(); }), kPorNullUnit);
  EXPECT_EQ(Raised([](const UnitConstructor& u) { u.Array().Property("a"); }), kPorTypeMismatch);
  EXPECT_EQ(Raised([](const UnitConstructor& u) { u.Composite().Property("a").Property("b"); }),
            kPorNullUnit);
}

TEST(UnitAccumulator, OpensAThousandUnitsAtMost) {
  const UnitConstructor unit(*GetStaticUnitFactory());
  for (int i = 0; i < 1000; ++i) unit.Array();
  try {
    unit.Nil();
    ADD_FAILURE();
  } catch (const ModuleError& error) {
    EXPECT_EQ(error.GetCode(), 0xFA0001u);
    EXPECT_EQ(error.GetMessage(), u"POR: An internal error has occurred.");
  }
}

TEST(UnitConstructor, TakesAWholeUnitWithItsEnd) {
  const OwnedUnit inner = Make(
      [](const UnitConstructor& u) { u.Array().Byte(1).End().Trait("t").Double(2).End().End(); });
  const OwnedUnit outer = Make([&](const UnitConstructor& u) {
    u.Composite().Property("a").Unit(*inner).Property("b").Unit(*inner).End();
  });
  const std::string part = ToHex(Write(*inner));
  EXPECT_EQ(ToHex(Write(*outer)), Hex("55 43 50 0D 02000000 6100") + part +
                                      Hex("50 0D 02000000 6200") + part + Hex("45"));
}

}  // namespace
}  // namespace Por::Util
