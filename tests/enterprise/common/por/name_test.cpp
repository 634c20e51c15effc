#include "enterprise/common/por/name.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

#include "tests/support/allocation_watch.h"

namespace Por {
namespace {

// Short enough to lie inside the string object, and too long for that.
const Common::String kTexts[] = {u"", u"short", u"a name that needs memory of its own"};

TEST(Name, LiteralsShareTheirAddressAndAllocateNothing) {
  static const char kLiteral[] = "a literal that no short string could hold";
  const TestSupport::AllocationWatch watch;
  const Name name = kLiteral;
  Name copy = name;
  Name moved = std::move(copy);
  copy = moved;
  EXPECT_EQ(0u, watch.GetCount());
  EXPECT_EQ(kLiteral, name.GetText());
  EXPECT_EQ(kLiteral, moved.GetText());
  EXPECT_EQ(kLiteral, copy.GetText());
}

TEST(Name, CopiesOutliveTheirSource) {
  for (const Common::String& text : kTexts) {
    std::optional<Name> source(std::in_place, text);
    const Name copy = *source;
    Name assigned = "literal";
    assigned = *source;
    EXPECT_NE(source->GetText(), copy.GetText());
    EXPECT_NE(source->GetText(), assigned.GetText());
    source.reset();
    EXPECT_EQ(text, copy.ToString());
    EXPECT_EQ(text, assigned.ToString());
  }
}

TEST(Name, MovesAndSelfAssignmentLeaveBothSidesValid) {
  for (const Common::String& text : kTexts) {
    std::optional<Name> source(std::in_place, text);
    Name moved = std::move(*source);
    EXPECT_TRUE(source->IsEmpty());
    Name target(Common::String(u"overwritten text of some length"));
    *source = moved;
    target = std::move(*source);
    source.reset();
    EXPECT_EQ(text, moved.ToString());
    EXPECT_EQ(text, target.ToString());
    Name& alias = target;
    target = alias;
    EXPECT_EQ(text, target.ToString());
    target = std::move(alias);
    EXPECT_EQ(text, target.ToString());
    target = Name("literal");
    EXPECT_STREQ("literal", target.GetText());
  }
}

TEST(Name, OrdersByBytesAndEndsAtZero) {
  EXPECT_LT(Name("Z"), Name("a"));
  EXPECT_LT(Name("a"), Name("a\x01"));
  EXPECT_LT(Name("z"), Name::FromUtf8("\xC3\xA9"));  // bytes above 0x7F are the greater ones
  EXPECT_EQ(Name("ab"), Name::FromUtf8(std::string_view("ab\0c", 4)));
  EXPECT_EQ(Name("ab"), Name(Common::String(u"ab\0c", 4)));
  EXPECT_STREQ("\xC3\xA9", Name(Common::String(u"\u00E9")).GetText());
}

}  // namespace
}  // namespace Por
