#include "enterprise/common/por/for_each_unit_by_level.h"

#include <gtest/gtest.h>

#include <string>

#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/support/allocation_watch.h"

namespace Por::Test {
namespace {

// The visited units in order: 'A' and 'C' for arrays and composites, the digit of any other. The
// processor returns true for the units in `stops`.
std::string Walk(const View::Unit& unit, const std::string& stops = "") {
  std::string visited;
  auto processor = MakeProcessor<const View::Unit>([&](const View::Unit& visit) {
    const char mark = Util::IsArray(visit) ? 'A'
                      : Util::IsComposite(visit)
                          ? 'C'
                          : static_cast<char>('0' + Util::GetValue<unsigned int>(visit, 0));
    visited += mark;
    return stops.find(mark) != std::string::npos;
  });
  ForEachUnitByLevel(unit, processor);
  return visited;
}

TEST(ForEachUnitByLevel, VisitsLevelAfterLevel) {
  EXPECT_EQ(Walk(*DWord(1)), "1");
  EXPECT_EQ(Walk(*Composite("a", Array(DWord(1)), "b", DWord(2))), "CA21");
  EXPECT_EQ(Walk(*Array(Array(Array(DWord(3))), Composite("x", DWord(2)), DWord(1))), "AAC1A23");
  EXPECT_EQ(Walk(*Composite("a", Composite(), "b", Array())), "CCA");
  EXPECT_EQ(Walk(*With(Array(With(DWord(1), "t", DWord(2))), "t", DWord(3))), "A1")
      << "traits are not walked";
}

TEST(ForEachUnitByLevel, TrueForAPropertyOrTheRootEndsTheWalk) {
  EXPECT_EQ(Walk(*Composite("a", DWord(1), "b", Array(DWord(2))), "C"), "C");
  EXPECT_EQ(Walk(*Composite("a", DWord(1), "b", Array(DWord(2))), "1"), "C1");
  // Out of an element of an array as well: the flag reaches the root.
  EXPECT_EQ(Walk(*Array(Composite("x", DWord(1)), Composite("y", DWord(2)), Array(Array())), "1"),
            "ACCA1");
  EXPECT_EQ(Walk(*Composite("a", Array(Composite("x", DWord(1))), "b", Array(DWord(2))), "1"),
            "CAAC21");
}

TEST(ForEachUnitByLevel, TrueForAnElementEndsItsArrayOnly) {
  // The rest of the array is left out, its siblings and the deeper levels follow.
  EXPECT_EQ(Walk(*Composite("a", Array(DWord(1), DWord(2)), "b", Array(DWord(3), DWord(4))), "1"),
            "CAA134");
  EXPECT_EQ(Walk(*Array(Composite("x", DWord(5)), DWord(2)), "C"), "AC5");
  // What the skipped elements hold is not noted as a deeper level.
  EXPECT_EQ(Walk(*Array(DWord(1), Array(DWord(2))), "1"), "A1");
  // But it is walked when another unit was noted.
  EXPECT_EQ(Walk(*Array(Array(), DWord(1), Array(DWord(2))), "1"), "AA12");
}

TEST(ForEachUnitByLevel, GoesDownAsFarAsUnitsNestWithoutAllocation) {
  OwnedUnit unit = DWord(1);
  for (unsigned int i = 1; i < kMaxUnitDepth; ++i) {
    unit = i % 2 == 0 ? Array(std::move(unit)) : Composite("a", std::move(unit));
  }
  unsigned int visits = 0;
  auto processor = MakeProcessor<const View::Unit>([&](const View::Unit&) { ++visits; });
  const TestSupport::AllocationWatch watch;
  ForEachUnitByLevel(*unit, processor);
  EXPECT_EQ(watch.GetCount(), 0u);
  EXPECT_EQ(visits, kMaxUnitDepth);
}

}  // namespace
}  // namespace Por::Test
