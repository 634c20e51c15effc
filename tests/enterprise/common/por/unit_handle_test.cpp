#include "enterprise/common/por/unit_handle.h"

#include <gtest/gtest.h>

#include <memory>
#include <typeinfo>
#include <utility>

#include "core/common/error.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_value_access.h"

namespace Por {
namespace {

OwnedUnit MakeNumber(unsigned int value) {
  return GetStaticUnitFactory()->CreateDWord(value);
}

unsigned int GetNumber(const View::Unit& unit) {
  return Util::GetValue<unsigned int>(unit);
}

TEST(UnitHandle, NamesAPlaceThatNeedNotBeThereYet) {
  const MutableUnit root;
  MutableUnit place = root["a"]["b.c"];
  EXPECT_EQ(place.GetShared(), nullptr);
  EXPECT_EQ(place.Clone(), nullptr);
  try {
    place.GetUnit();
    FAIL();
  } catch (const Common::Error& error) {
    EXPECT_EQ(typeid(error), typeid(Common::Error));
    EXPECT_EQ(error.GetCode(), 0xFA0001u);
    EXPECT_EQ(error.GetMessage(), u"POR: Cannot access property by path '.a.b&d;c'.");
    EXPECT_STREQ(error.GetLineTag().file, "enterprise/common/por/const_unit");
    EXPECT_STREQ(error.GetLineTag().function, "UnitMissingPropertyAccess");
    EXPECT_EQ(error.GetLineTag().line, 89u);
  }
  place.Assign(MakeNumber(5));
  EXPECT_EQ(GetNumber(root["a"]["b.c"].GetUnit()), 5u);
  EXPECT_EQ(GetNumber(*place.Clone()), 5u);
  EXPECT_THROW(place.Assign(nullptr), Common::Error);
}

TEST(UnitHandle, AReplacedRootIsSeenByAllOfItsCell) {
  MutableUnit root;
  MutableUnit child = root["a"];
  child.Assign(MakeNumber(1));
  const std::shared_ptr<Construction::Unit> old = child.GetShared();
  OwnedUnit other = GetStaticUnitFactory()->CreateComposite();
  Util::AddProperty(*other, "a", MakeNumber(2), *GetStaticUnitFactory());
  root.Assign(std::move(other));
  EXPECT_EQ(GetNumber(child.GetUnit()), 2u);
  EXPECT_EQ(GetNumber(*old), 1u);  // keeps the old root

  const MutableUnit moved = std::move(child);
  EXPECT_EQ(GetNumber(child.GetUnit()), 2u);  // NOLINT: a move leaves the handle usable
  EXPECT_EQ(GetNumber(moved.GetUnit()), 2u);
}

TEST(UnitHandle, ReadsSharedTrees) {
  OwnedUnit tree = GetStaticUnitFactory()->CreateComposite();
  Util::AddProperty(*tree, "a", MakeNumber(1), *GetStaticUnitFactory());
  const ConstUnit root(SharedUnit(std::move(tree)), *GetStaticUnitFactory());
  SharedUnit shared;
  {
    const ConstUnit place = root["a"];
    shared = place.GetShared();
    EXPECT_EQ(place.GetFactory(), GetStaticUnitFactory());
  }
  EXPECT_EQ(GetNumber(*shared), 1u);
  EXPECT_EQ(root["b"].GetShared(), nullptr);
  EXPECT_EQ(ConstUnit(nullptr, *GetStaticUnitFactory())["a"].GetShared(), nullptr);
}

}  // namespace
}  // namespace Por
