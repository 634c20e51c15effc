#include "enterprise/common/por/unit_path.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/text.h"
#include "enterprise/common/por/unit_constructor.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"

namespace Por::Util {
namespace {

const Construction::UnitFactory& Factory() {
  return *GetStaticUnitFactory();
}

// {a: {b: 1}^Kind 7, "a.b": 2, "c^d": 3, l: [10, 11], "a..": 4, "x": 5 ^t 1 ^t 2}
OwnedUnit MakeTree() {
  UnitConstructor make(Factory());
  make.Composite();
  make.Property("a").Composite().Property("b").DWord(1).End();
  make.Trait("Kind").DWord(7).End().End();
  make.Property("a.b").DWord(2).End();
  make.Property("c^d").DWord(3).End();
  make.Property("l").Array().DWord(10).End().DWord(11).End().End();
  make.Property("a..").DWord(4).End();
  make.Property("x").DWord(5).Trait("t").DWord(1).End().Trait("t").DWord(2).End().End();
  make.End();
  return make.TakeResult();
}

std::string Show(const View::Unit* unit) {
  if (unit == nullptr) return "nothing";
  if (GetValueTypeIndex(*unit) == 6) return std::to_string(GetValue<unsigned int>(*unit));
  return Common::String(GetTypeName(GetValueTypeIndex(*unit))) == u"array" ? "array" : "composite";
}

// What `call` raises, as its code in hexadecimal.
template <class Function>
std::string Raised(Function&& call) {
  try {
    return std::forward<Function>(call)();
  } catch (const Common::Error& error) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", error.GetCode());
    return text;
  }
}

struct PathCase {
  const char16_t* path;
  const char* built;   // through ResolveUnit
  const char* viewed;  // through ResolveViewUnit
};

TEST(UnitPath, ResolvesTolerantly) {
  const PathCase cases[] = {
      {u"", "composite", "composite"},
      {u".", "composite", "composite"},
      {u".a", "composite", "composite"},
      {u"a", "composite", "composite"},
      {u".a.", "composite", "composite"},
      {u".a.b", "1", "1"},
      {u".a&d;b", "2", "2"},
      {u".c&r;d", "3", "3"},
      {u".a..", "4", "4"},                 // a pair stays in its token
      {u"..a", "composite", "composite"},  // one is skipped, the token before the next is empty
      {u".z", "nothing", "nothing"},
      {u".z.y", "nothing", "nothing"},
      {u".l", "array", "array"},
      {u".l.1", "11", "11"},
      {u".l.0x1", "11", "11"},
      {u".l.1h", "11", "11"},
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
  for (const PathCase& one : cases) {
    const Common::String path = one.path;
    EXPECT_EQ(Raised([&] { return Show(ResolveUnit(path, tree.get())); }), one.built)
        << testing::PrintToString(path);
    EXPECT_EQ(Raised([&] { return Show(ResolveViewUnit(path, tree.get())); }), one.viewed)
        << testing::PrintToString(path);
  }
  EXPECT_EQ(ResolveUnit(u".a", nullptr), nullptr);
  EXPECT_TRUE(PathExists(u".a^Kind", tree.get()));
}

struct SplitCase {
  const char16_t* path;
  const char16_t* rest;
  const char* token;
  int is_trait;  // -1: untouched
};

TEST(UnitPath, SplitsTheLastTokenOff) {
  const SplitCase cases[] = {
      {u"", u"", "", -1},         {u".", u".", "", -1},     {u"^", u"^", "", -1},
      {u".a", u"", "a", 0},       {u"^a", u"", "a", 1},     {u"a", u"", "a", -1},
      {u".a.b", u".a", "b", 0},   {u".a^b", u".a", "b", 1}, {u".a&d;b", u"", "a.b", 0},
      {u".a.", u"", "a.", 0},      // a separator at the very end stays
      {u"a...b", u"a", "..b", 0},  // scanned from behind, unlike a resolve
      {u"a..b", u"", "a..b", -1}, {u"a..", u"a", ".", 0},
  };
  for (const SplitCase& one : cases) {
    Common::String path = one.path;
    bool is_trait = false;
    bool is_other = true;
    const Name token = SplitLastToken(path, &is_trait);
    Common::String again = one.path;
    SplitLastToken(again, &is_other);
    EXPECT_EQ(path, one.rest) << testing::PrintToString(Common::String(one.path));
    EXPECT_STREQ(token.GetText(), one.token);
    EXPECT_EQ(is_trait == is_other ? static_cast<int>(is_trait) : -1, one.is_trait);
  }
}

class TokenNotes final : public PathWalker {
 public:
  void OnProperty(const Name& name) override { text.append("|").append(name.GetText()); }
  void OnTrait(const Name&) override { text += "trait"; }
  void OnEmptyPath() override { text += "empty"; }
  std::string text;
};

TEST(UnitPath, WalksStrictly) {
  const std::pair<const char16_t*, const char*> cases[] = {
      {u"", "empty"},      {u".a", "|a"},     {u".a.b", "|a|b"},
      {u".a..b", "|a||b"}, {u".a^b", "|a^b"}, {u".a&d;b", "|a.b"},
  };
  for (const auto& [path, text] : cases) {
    TokenNotes notes;
    WalkPath(path, notes);
    EXPECT_EQ(notes.text, text);
  }
  const std::pair<const char16_t*, const char16_t*> refused[] = {
      {u"a.b", u"POR: Beginning of unit path 'a.b' contains an incorrect symbol."},
      {u".", u"POR: Unit path '.' contains an empty token."},
      {u".a.", u"POR: There is an invalid separator at the end of path '.a.'."},
  };
  for (const auto& [path, message] : refused) {
    TokenNotes notes;
    try {
      WalkPath(path, notes);
      ADD_FAILURE() << testing::PrintToString(Common::String(path));
    } catch (const Common::Error& error) {
      EXPECT_EQ(error.GetCode(), 0xFA0001u);
      EXPECT_EQ(error.GetMessage(), message);
      EXPECT_STREQ(typeid(error).name(), typeid(Common::Error).name());
    }
  }
}

TEST(UnitPath, PutsUnitsMakingTheWay) {
  const OwnedUnit five = Factory().CreateDWord(5);
  std::shared_ptr<Construction::Unit> root =
      PutUnitInLocation(nullptr, *five, u".a.b.c", Factory());
  EXPECT_EQ(Show(ResolveUnit(u".a.b.c", root.get())), "5");
  // Over an existing unit, and under a way that is there.
  const OwnedUnit six = Factory().CreateDWord(6);
  root = PutUnitInLocation(root, *six, u".a.b", Factory());
  EXPECT_EQ(Show(ResolveUnit(u".a.b", root.get())), "6");
  // A unit that stands in what is replaced.
  root = PutUnitInLocation(root, *ResolveUnit(u".a.b", root.get()), u".a", Factory());
  EXPECT_EQ(Show(ResolveUnit(u".a", root.get())), "6");
  // The empty path is the root itself; the old one is not touched.
  const auto other = PutUnitInLocation(root, *five, u"", Factory());
  EXPECT_EQ(Show(other.get()), "5");
  EXPECT_EQ(Show(root.get()), "composite");

  const OwnedUnit tree = MakeTree();
  const auto put = [&](const Common::String& path) {
    return Raised([&] {
      std::shared_ptr<Construction::Unit> copy = CopyUnit(*tree, Factory());
      copy = PutUnitInLocation(copy, *five, path, Factory());
      return Show(ResolveUnit(path, copy.get()));
    });
  };
  EXPECT_EQ(put(u".new"), "5");
  EXPECT_EQ(put(u".a.b.c"), "fa0001");  // 1 is no composite
  EXPECT_EQ(put(u".l.1"), "fa000a");    // an element can't be removed
  EXPECT_EQ(put(u".l.2"), "fa000f");
  EXPECT_EQ(put(u"new"), "fa0001");
  Common::String deep;
  for (unsigned int i = 0; i < kMaxUnitDepth; ++i) deep += u".a";
  EXPECT_EQ(put(deep), "fa0001");
}

TEST(UnitPath, RemovesPropertiesOnly) {
  const OwnedUnit tree = MakeTree();
  RemoveAtPath(*tree, u".a.b");
  EXPECT_FALSE(PathExists(u".a.b", tree.get()));
  RemoveAtPath(*tree, u".a.");  // it resolves, but its last token is "a."
  EXPECT_TRUE(PathExists(u".a", tree.get()));
  RemoveAtPath(*tree, u".none");
  EXPECT_EQ(Raised([&] {
              RemoveAtPath(*tree, u".l.0");
              return std::string();
            }),
            "fa000a");
}

TEST(UnitPath, EscapesTokens) {
  EXPECT_EQ(EscapePathToken(u"a.b^c&"), u"a&d;b&r;c&");
  EXPECT_EQ(UnescapePathToken(u"a&d;b&r;c&"), u"a.b^c&");
  EXPECT_EQ(JoinPath(u".x", Name("a.b")), u".x.a&d;b");
}

}  // namespace
}  // namespace Por::Util
