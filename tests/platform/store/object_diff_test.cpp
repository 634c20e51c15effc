#include "platform/store/object_diff.h"

#include <gtest/gtest.h>

#include "enterprise/common/por/assign_unit.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/support/text.h"

namespace Platform::Store {

namespace {

std::string Composite(const std::string& content) {
  return std::string(".Composite()").append(content).append(".End()");
}
std::string Property(const std::string& name, const std::string& value) {
  return std::string(".Property(\"").append(name).append("\")").append(value);
}
std::string Trait(const std::string& name, const std::string& value) {
  return std::string(".Trait(\"").append(name).append("\")").append(value);
}

const std::string kOne = ".DWord(1).End()";
const std::string kTwo = ".DWord(2).End()";
const std::string kGone = ".Nil().Trait(\"Nil\").Nil().End().End()";

struct Example {
  std::string before;
  std::string after;
  std::string diff;
  bool is_patch;  // assigned to what was before, it gives what is after
};

TEST(ObjectDiff, HoldsWhatDiffers) {
  const std::string is_a = Trait("Is", ".String(\"A\").End()");
  const std::string is_b = Trait("Is", ".String(\"B\").End()");
  const Example examples[] = {
      // Changed, new and gone properties; the traits as they are now.
      {Composite(is_a + Property("a", kOne) + Property("b", kOne)),
       Composite(is_a + Property("a", kTwo) + Property("b", kOne)),
       Composite(is_a + Property("a", kTwo)), true},
      {Composite(Property("a", kOne)), Composite(Property("a", kOne) + Property("b", kTwo)),
       Composite(Property("b", kTwo)), false},
      {Composite(Property("a", kOne) + Property("b", kTwo)), Composite(Property("b", kTwo)),
       Composite(Property("a", kGone)), false},
      {Composite(is_a + Property("a", kOne)), Composite(is_b + Property("a", kOne)),
       Composite(is_b), false},
      // Of a composite inside, only the difference; an array whole.
      {Composite(Property("a", Composite(is_a + Property("x", kOne) + Property("y", kOne)))),
       Composite(Property("a", Composite(is_a + Property("x", kTwo) + Property("y", kOne)))),
       Composite(Property("a", Composite(is_a + Property("x", kTwo)))), true},
      {Composite(Property("a", ".Array()" + kOne + kTwo + ".End()") + Property("b", kOne)),
       Composite(Property("a", ".Array()" + kOne + ".End()") + Property("b", kOne)),
       Composite(Property("a", ".Array()" + kOne + ".End()")), true},
      {Composite(Property("a", Composite(Property("x", kOne)))),
       Composite(Property("a", Composite(""))),
       Composite(Property("a", Composite(Property("x", kGone)))), false},
      // Another kind, another trait of a value, a value beside the same text.
      {Composite(Property("a", kOne)), Composite(Property("a", ".Word(1).End()")),
       Composite(Property("a", ".Word(1).End()")), false},
      {Composite(Property("a", Composite(Property("x", kOne)))), Composite(Property("a", kOne)),
       Composite(Property("a", kOne)), false},
      {Composite(Property("a", ".DWord(1)" + is_a + ".End()")),
       Composite(Property("a", ".DWord(1)" + is_b + ".End()")),
       Composite(Property("a", ".DWord(1)" + is_b + ".End()")), false},
      // Roots that are no composites, and no difference at all.
      {kOne, kTwo, kTwo, true},
      {kOne, Composite(Property("a", kOne)), Composite(Property("a", kOne)), false},
      {Composite(is_a + Property("a", kOne)), Composite(is_a + Property("a", kOne)),
       Composite(is_a), true},
      {kOne, kOne, kOne, true}};
  for (const Example& example : examples) {
    const Por::OwnedUnit before = Parse(example.before);
    const Por::OwnedUnit after = Parse(example.after);
    const Por::OwnedUnit expected = Parse(example.diff);
    ASSERT_TRUE(before != nullptr && after != nullptr && expected != nullptr) << example.after;
    const Por::OwnedUnit diff = MakeObjectDiff(*before, *after, *Por::GetStaticUnitFactory());
    ASSERT_NE(diff, nullptr);
    EXPECT_TRUE(Por::Util::UnitEqual(*diff, *expected)) << example.before << "\n" << example.after;
    bool is_patch = false;
    try {
      Por::Util::AssignUnit(*before, *diff, *Por::GetStaticUnitFactory());
      is_patch = Por::Util::UnitEqual(*before, *after);
    } catch (const Common::Error&) {
    }
    EXPECT_EQ(is_patch, example.is_patch) << example.before << "\n" << example.after;
  }
}

// As deep as units may be.
TEST(ObjectDiff, FindsAChangeInTheDepth) {
  const auto make = [](const std::string& value) {
    std::string text = value;
    for (unsigned int i = 1; i < Por::kMaxUnitDepth; ++i) {
      text = Composite(Property("a", text).append(Property("b", kOne)));
    }
    return Parse(text);
  };
  const Por::OwnedUnit before = make(kOne);
  const Por::OwnedUnit after = make(kTwo);
  ASSERT_TRUE(before != nullptr && after != nullptr);
  const Por::OwnedUnit diff = MakeObjectDiff(*before, *after, *Por::GetStaticUnitFactory());
  EXPECT_FALSE(Por::Util::UnitEqual(*diff, *after));
  Por::Util::AssignUnit(*before, *diff, *Por::GetStaticUnitFactory());
  EXPECT_TRUE(Por::Util::UnitEqual(*before, *after));
}

}  // namespace

}  // namespace Platform::Store
