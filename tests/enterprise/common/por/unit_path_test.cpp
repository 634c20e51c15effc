#include "enterprise/common/por/unit_path.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"

namespace Por::Util {
namespace {

using namespace Por::Test;  // NOLINT: the vocabulary of these tests

OwnedUnit MakeTree() {
  return Composite("a", With(Composite("b", DWord(1)), "Kind", DWord(7)), "a.b", DWord(2), "c^d",
                   DWord(3), "l", Array(DWord(10), DWord(11)), "a..", DWord(4), "e..",
                   Composite("b", DWord(6)), "x",
                   With(With(DWord(5), "t", DWord(1)), "t", DWord(2)));
}

// The unit that `find` gives: its number or kind, "nothing", or the code of what is raised.
template <class Find>
std::string Show(Find find) {
  const View::Unit* unit = nullptr;
  const Thrown thrown = Catch([&] { unit = find(); });
  if (thrown.error != "nothing") return thrown.error.substr(thrown.error.find(": ") - 6, 6);
  if (unit == nullptr) return "nothing";
  const unsigned int index = GetValueTypeIndex(*unit);
  return index == 6 ? std::to_string(GetValue<unsigned int>(*unit))
                    : TestSupport::Utf8(GetTypeName(index));
}

TEST(UnitPath, ResolvesTolerantly) {
  constexpr struct {
    const char16_t* path;
    const char* built;   // through ResolveUnit
    const char* viewed;  // through ResolveViewUnit
  } kCases[] = {
      {u"", "composite", "composite"},
      {u"x", "5", "5"},
      {u".x.", "5", "5"},
      {u".a.b", "1", "1"},
      {u".a&d;b", "2", "2"},
      {u".c&r;d", "3", "3"},
      {u".a..", "4", "4"},                 // a pair stays in its token
      {u".e...b", "6", "6"},               // the pair, and then the end of the token
      {u"..a", "composite", "composite"},  // one is skipped, the token before the next is empty
      {u".z", "nothing", "nothing"},
      {u".l", "array", "array"},
      {u".l.1", "11", "11"},
      {u".l.0x1", "11", "11"},
      {u".l.-1", "nothing", "nothing"},
      {u".l.x", "nothing", "nothing"},
      {u".l.2", "fa000f", "fa000f"},
      {u".a.b.c", "nothing", "nothing"},
      {u"^a", "composite", "fa001d"},  // a tree under construction isn't looked into for traits
      {u".a^Kind", "nothing", "7"},
      {u".a^None", "nothing", "fa001d"},
      {u".x^t", "nothing", "fa001c"},
  };
  const OwnedUnit tree = MakeTree();
  for (const auto& one : kCases) {
    EXPECT_EQ(Show([&] { return ResolveUnit(one.path, tree.get()); }), one.built)
        << TestSupport::Utf8(one.path);
    EXPECT_EQ(Show([&] { return ResolveViewUnit(one.path, tree.get()); }), one.viewed)
        << TestSupport::Utf8(one.path);
  }
  EXPECT_EQ(ResolveUnit(u".a", nullptr), nullptr);
}

TEST(UnitPath, SplitsTheLastTokenOff) {
  constexpr struct {
    const char16_t* path;
    const char16_t* rest;
    const char* token;
    int is_trait;  // -1: untouched
  } kCases[] = {
      {u"", u"", "", -1},         {u".", u".", "", -1},     {u"^", u"^", "", -1},
      {u".a", u"", "a", 0},       {u"^a", u"", "a", 1},     {u"a", u"", "a", -1},
      {u".a.b", u".a", "b", 0},   {u".a^b", u".a", "b", 1}, {u".a&d;b", u"", "a.b", 0},
      {u".a.", u"", "a.", 0},      // a separator at the very end stays
      {u"a...b", u"a", "..b", 0},  // scanned from behind, unlike a resolve
      {u"a..b", u"", "a..b", -1}, {u"a..", u"a", ".", 0},
  };
  for (const auto& one : kCases) {
    for (const bool before : {false, true}) {
      Common::String path = one.path;
      bool is_trait = before;
      EXPECT_STREQ(SplitLastToken(path, &is_trait).GetText(), one.token);
      EXPECT_EQ(path, one.rest) << TestSupport::Utf8(one.path);
      EXPECT_EQ(is_trait, one.is_trait == -1 ? before : one.is_trait == 1);
    }
  }
}

TEST(UnitPath, WalksStrictly) {
  constexpr struct {
    const char16_t* path;
    const char* tokens;
    const char* error = "nothing";
  } kCases[] = {
      {u"", "empty"},
      {u".a", "|a"},
      {u".a..b", "|a||b"},
      {u".a^b", "|a^b"},
      {u".a&d;b", "|a.b"},
      {u"a.b", "", "Error fa0001: POR: Beginning of unit path 'a.b' contains an incorrect symbol."},
      {u".", "", "Error fa0001: POR: Unit path '.' contains an empty token."},
      {u".a.", "", "Error fa0001: POR: There is an invalid separator at the end of path '.a.'."},
  };
  class TokenNotes final : public PathWalker {
   public:
    void OnProperty(const Name& name) override { text.append("|").append(name.GetText()); }
    void OnTrait(const Name&) override { text += "trait"; }
    void OnEmptyPath() override { text += "empty"; }
    std::string text;
  };
  for (const auto& one : kCases) {
    TokenNotes notes;
    EXPECT_EQ(Catch([&] { WalkPath(one.path, notes); }).error, one.error);
    EXPECT_EQ(notes.text, one.tokens);
  }
}

TEST(UnitPath, PutsUnitsMakingTheWay) {
  using Root = std::shared_ptr<Construction::Unit>;
  const auto show = [](const Root& root, const Common::String& path) {
    return Show([&] { return ResolveUnit(path, root.get()); });
  };
  const OwnedUnit five = DWord(5);
  Root root = PutUnitInLocation(nullptr, *five, u".a.b.c", Factory());
  EXPECT_EQ(show(root, u".a.b.c"), "5");
  // Over an existing unit, and under a way that is there.
  root = PutUnitInLocation(root, *DWord(6), u".a.b", Factory());
  EXPECT_EQ(show(root, u".a.b"), "6");
  // A unit that stands in what is replaced.
  root = PutUnitInLocation(root, *ResolveUnit(u".a.b", root.get()), u".a", Factory());
  EXPECT_EQ(show(root, u".a"), "6");
  // The empty path is the root itself; the old one is not touched.
  EXPECT_EQ(show(PutUnitInLocation(root, *five, u"", Factory()), u""), "5");
  EXPECT_EQ(show(root, u""), "composite");

  Common::String deep;
  for (unsigned int i = 0; i < kMaxUnitDepth; ++i) deep += u".a";
  const std::pair<Common::String, const char*> cases[] = {
      {u".new", "5"},      {u".a.b.c", "fa0001"},  // 1 is no composite
      {u".l.1", "fa000a"},                         // an element can't be removed
      {u".l.2", "fa000f"}, {u"new", "fa0001"},    {deep, "fa0001"},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(Show([&] {
                root = PutUnitInLocation(MakeTree(), *five, one.first, Factory());
                return ResolveUnit(one.first, root.get());
              }),
              one.second);
  }
}

TEST(UnitPath, RemovesPropertiesOnly) {
  const OwnedUnit tree = MakeTree();
  RemoveAtPath(*tree, u".a.b");
  EXPECT_FALSE(PathExists(u".a.b", tree.get()));
  RemoveAtPath(*tree, u".a.");  // it resolves, but its last token is "a."
  EXPECT_TRUE(PathExists(u".a", tree.get()));
  EXPECT_TRUE(PathExists(u".a^Kind", tree.get()));
  RemoveAtPath(*tree, u".none");
  RemoveAtPath(*DWord(1), u".");
  EXPECT_EQ(Catch([&] { RemoveAtPath(*tree, u".l.0"); }).error.substr(0, 12), "Error fa000a");
}

TEST(UnitPath, EscapesTokens) {
  EXPECT_EQ(EscapePathToken(u"a.b^c&"), u"a&d;b&r;c&");
  EXPECT_EQ(UnescapePathToken(u"a&d;b&r;c&"), u"a.b^c&");
  EXPECT_EQ(JoinPath(u".x", Name("a.b")), u".x.a&d;b");
}

}  // namespace
}  // namespace Por::Util
