#include "enterprise/common/por/unit_handle.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"

namespace Por::Test {
namespace {

unsigned int GetNumber(const View::Unit& unit) {
  return Util::GetValue<unsigned int>(unit);
}

TEST(UnitHandle, NamesAPlaceThatNeedNotBeThereYet) {
  const MutableUnit root;
  MutableUnit place = root["a"]["b.c"];
  EXPECT_EQ(place.GetShared(), nullptr);
  EXPECT_EQ(place.Clone(), nullptr);
  const Thrown missing = Catch([&] { place.GetUnit(); });
  EXPECT_EQ(missing.error, "Error fa0001: POR: Cannot access property by path '.a.b&d;c'.");
  EXPECT_EQ(missing.place, "enterprise/common/por/const_unit:89 UnitMissingPropertyAccess");
  place.Assign(DWord(5));
  EXPECT_EQ(GetNumber(root["a"]["b.c"].GetUnit()), 5u);
  EXPECT_EQ(GetNumber(*place.Clone()), 5u);
  EXPECT_THROW(place.Assign(nullptr), Common::Error);
}

TEST(UnitHandle, AReplacedRootIsSeenByAllOfItsCell) {
  MutableUnit root;
  MutableUnit child = root["a"];
  child.Assign(DWord(1));
  const std::shared_ptr<Construction::Unit> old = child.GetShared();
  root.Assign(Composite("a", DWord(2)));
  EXPECT_EQ(GetNumber(child.GetUnit()), 2u);
  EXPECT_EQ(GetNumber(*old), 1u);  // keeps the old root

  const MutableUnit moved = std::move(child);
  EXPECT_EQ(GetNumber(child.GetUnit()), 2u);  // NOLINT: a move leaves the handle usable
  EXPECT_EQ(GetNumber(moved.GetUnit()), 2u);
}

TEST(UnitHandle, ReadsSharedTrees) {
  const ConstUnit root(SharedUnit(Composite("a", DWord(1))), Factory());
  SharedUnit shared;
  {
    const ConstUnit place = root["a"];
    shared = place.GetShared();
    EXPECT_EQ(place.GetFactory(), &Factory());
  }
  EXPECT_EQ(GetNumber(*shared), 1u);
  EXPECT_EQ(root["b"].GetShared(), nullptr);
  EXPECT_EQ(ConstUnit(nullptr, Factory())["a"].GetShared(), nullptr);
}

}  // namespace
}  // namespace Por::Test
