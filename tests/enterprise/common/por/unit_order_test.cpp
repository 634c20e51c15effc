// Equality, order and copy.

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visit_value.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/stream_support.h"

namespace Por::Util {
namespace {

using namespace Por::Test;  // NOLINT: the vocabulary of these tests

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Each unit lies before all later ones, and each is equal to a copy of itself only.
void ExpectAscending(const std::vector<OwnedUnit>& units) {
  for (std::size_t i = 0; i < units.size(); ++i) {
    for (std::size_t k = 0; k < units.size(); ++k) {
      const OwnedUnit other = CopyUnit(*units[k], Factory());
      EXPECT_EQ(i < k ? -1 : i > k ? 1 : 0, Compare(*units[i], *other)) << i << " and " << k;
      EXPECT_EQ(i == k, UnitEqual(*units[i], *other)) << i << " and " << k;
      EXPECT_EQ(i < k, Less(*units[i], *other)) << i << " and " << k;
    }
  }
}

TEST(Order, OfKindsIsByTheirIndex) {
  ExpectAscending(OneOfEachKind());
}

TEST(Order, OfScalarsIsNumeric) {
  ExpectAscending(List(Boolean(false), Boolean(true)));
  ExpectAscending(List(SByte(-128), SByte(-1), SByte(0), SByte(127)));
  ExpectAscending(List(DWord(1), DWord(0x80000000)));
  ExpectAscending(List(QWord(1), QWord(1ull << 63)));
  ExpectAscending(List(SQWord(std::numeric_limits<long long>::min()),
                       SQWord(std::numeric_limits<long long>::max())));
  ExpectAscending(List(Double(-INFINITY), Double(-1), Double(0), Double(1e-300), Double(INFINITY)));
  EXPECT_TRUE(UnitEqual(*Double(0.0), *Double(-0.0)));
}

TEST(Order, OfANaNIsOneBothWays) {
  const OwnedUnit nan = Double(kNaN);
  for (const OwnedUnit& other : List(Double(kNaN), Double(1), Double(INFINITY))) {
    EXPECT_EQ(1, Compare(*nan, *other));
    EXPECT_EQ(1, Compare(*other, *nan));
    EXPECT_FALSE(UnitEqual(*nan, *other));
  }
  EXPECT_EQ(0, Compare(*nan, *nan));
  EXPECT_TRUE(UnitEqual(*nan, *nan));
  EXPECT_FALSE(UnitValueEqual(*nan, *nan));
}

TEST(Order, OfSequencesPutsPrefixesFirstAndArraysBySize) {
  ExpectAscending(List(Blob({}), Blob({0}), Blob({0, 0}), Blob({1}), Blob({127, 5}), Blob({128})));
  ExpectAscending(List(Text(u""), Text(Common::String(1, 0)), Text(u"Z"), Text(u"a"), Text(u"aa"),
                       Text(u"\u00FF"), Text(u"\xD800"), Text(u"\xFFFF")));
  ExpectAscending(List(Array(), Array(DWord(9)), Array(DWord(1), DWord(2)),
                       Array(DWord(1), DWord(3)), Array(DWord(2), DWord(0)),
                       Array(Nil(), Nil(), Nil())));
}

TEST(Order, OfGuidsIsByNumbersThenBytes) {
  // The three leading groups are little-endian, so a later byte outweighs an earlier one.
  ExpectAscending(List(Guid({2, 1, 0, 0}), Guid({1, 2, 0, 0}), Guid({0, 0, 0, 0x80})));
  ExpectAscending(List(Guid({0, 0, 0, 0, 2, 1}), Guid({0, 0, 0, 0, 1, 2})));
  ExpectAscending(List(Guid({0, 0, 0, 0, 0, 0, 2, 1}), Guid({0, 0, 0, 0, 0, 0, 1, 2})));
  ExpectAscending(List(Guid({0, 0, 0, 0, 0, 0, 0, 0, 1, 2}), Guid({0, 0, 0, 0, 0, 0, 0, 0, 2, 1}),
                       Guid({0, 0, 0, 0, 0, 0, 0, 0, 0x80})));
}

// Worked cases beside the random ones below, which have traits as well.
TEST(Order, OfCompositesIsByUnmatchedNamesFirst) {
  EXPECT_EQ(-1, Compare(*Composite("a", DWord(9)), *Composite("b", DWord(1))));
  EXPECT_EQ(1, Compare(*Composite("a", DWord(1), "b", DWord(1)), *Composite("a", DWord(9))));
  // The first unmatched name of each side: "b" against "c", whatever follows.
  EXPECT_EQ(-1, Compare(*Composite("a", DWord(9), "b", Nil(), "z", Nil()),
                        *Composite("a", DWord(1), "c", Nil(), "d", Nil())));
  // An unmatched empty name weighs as much as none.
  EXPECT_EQ(0, Compare(*Composite("", Nil()), *Composite()));
  EXPECT_FALSE(UnitEqual(*Composite("", Nil()), *Composite()));
}

TEST(Order, OfErrorsIsByCodesThenChainsThenParameters) {
  static constexpr Common::SourceFile kFile{"some/file"};
  const Common::LineTag tag = kFile.At("Function", 5);
  const auto with_reason = [](Common::Error head, const Common::Error& reason) {
    head.SetReason(reason);
    return head;
  };
  const auto chain = [&](std::initializer_list<std::uint32_t> codes) {
    Common::Error error;
    for (auto code = std::rbegin(codes); code != std::rend(codes); ++code) {
      error = with_reason(Common::Error(*code, u"text", tag), error);
    }
    return error;
  };
  const auto path = [&](const char* text) { return Common::MakePathError(7, u"text", text, tag); };
  const auto named = [&](const char16_t* where, const char16_t* name) {
    return Common::MakePathAndNameError(7, u"text", where, name, tag);
  };
  const auto expect_ascending = [](const auto&... errors) {
    ExpectAscending(List(ErrorUnit(errors)...));
  };
  expect_ascending(Common::Error(), chain({1}), chain({1, 1}), chain({1, 1, 5}), chain({1, 2}),
                   chain({2}), chain({0x80000000}));
  // Without a parameter that counts, then by value; by bytes, not by length.
  expect_ascending(chain({7}), path(""), path("b"), path("ba"), path("c"), path("\xC3\xA9"));
  // The shorter text first.
  expect_ascending(named(u"b", u"zz"), named(u"c", u"a"), named(u"aa", u""));
  expect_ascending(named(u"a", u"b"), named(u"a", u"aa"));
  // A reason weighs more than the parameters of its head.
  expect_ascending(with_reason(path("z"), chain({1})), with_reason(path("y"), path("a")),
                   with_reason(path("x"), path("b")));
  // Messages, places and the module don't count.
  EXPECT_EQ(0, CompareErrors(Common::Error(7, u"one", tag),
                             Common::Error(7, u"two", kFile.At("Other", 9))));
  Common::Error long_a;
  Common::Error long_b;
  for (int i = 0; i < 200'000; ++i) {
    long_a = with_reason(Common::Error(3, tag), long_a);
    long_b = with_reason(Common::Error(3, tag), long_b);
  }
  EXPECT_EQ(0, CompareErrors(long_a, long_b));
  EXPECT_EQ(-1, CompareErrors(long_a, with_reason(Common::Error(3, tag), long_b)));
}

// The definitions of equality and order word by word, for trees of few kinds: recursive, and with
// every comparison made as often as it is asked for.
class Reference {
 public:
  static bool Equal(const View::Unit& a, const View::Unit& b) {
    return &a == &b || (Included(a, b) && Included(b, a) && ValueEqual(a, b));
  }
  static bool Included(const View::Unit& a, const View::Unit& b) {
    return WithoutPartner(Traits(a), Traits(b), Equal).empty();
  }
  static int Compare(const View::Unit& a, const View::Unit& b) {
    if (&a == &b) return 0;
    const int values = CompareValues(a, b);
    return values != 0 ? values : CompareTraits(Traits(a), Traits(b));
  }

 private:
  struct Named {
    std::string name;
    const View::Unit* value;
  };
  using List = std::vector<Named>;

  static List Traits(const View::Unit& unit) {
    List list;
    auto add = MakeProcessor<const View::Trait>([&](const View::Trait& t) {
      list.push_back({t.GetName().GetText(), &t.GetValue()});
    });
    unit.GetTraits().ForEach(add);
    return list;
  }
  // Elements, or properties by their names.
  static List Members(const View::Unit& unit) {
    List list;
    auto add_element = MakeProcessor<const View::Unit>([&](const View::Unit& u) {
      list.push_back({std::string(), &u});
    });
    auto add_property = MakeProcessor<const View::Property>([&](const View::Property& p) {
      list.push_back({p.GetName().GetText(), &p.GetValue()});
    });
    Detail::VisitValue<View::ArrayValue>(unit, [&](const auto& a) { a.ForEach(add_element); });
    Detail::VisitValue<View::CompositeValue>(unit, [&](const auto& c) { c.ForEach(add_property); });
    return list;
  }
  // Those of `list` for whom nothing of that name in `others` is a partner.
  template <class IsPartner>
  static List WithoutPartner(const List& list, const List& others, IsPartner is_partner) {
    List rest;
    for (const Named& one : list) {
      const auto fits = [&](const Named& other) {
        return other.name == one.name && is_partner(*one.value, *other.value);
      };
      if (std::none_of(others.begin(), others.end(), fits)) rest.push_back(one);
    }
    return rest;
  }

  static bool ValueEqual(const View::Unit& a, const View::Unit& b) {
    const unsigned int kind = GetValueTypeIndex(a);
    if (kind != GetValueTypeIndex(b)) return false;
    if (kind == 10) return GetValue<double>(a) == GetValue<double>(b);
    const List left = Members(a), right = Members(b);
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const Named& one, const Named& other) {
                        return one.name == other.name && Equal(*one.value, *other.value);
                      });
  }

  template <class Value>
  static int Order(const Value& left, const Value& right) {
    return left < right ? -1 : left == right ? 0 : 1;
  }

  static int CompareValues(const View::Unit& a, const View::Unit& b) {
    const unsigned int kind = GetValueTypeIndex(a);
    if (kind != GetValueTypeIndex(b)) return Order(kind, GetValueTypeIndex(b));
    if (kind == 10) return Order(GetValue<double>(a), GetValue<double>(b));
    const List left = Members(a), right = Members(b);
    if (kind == kCompositeIndex) {
      const auto any = [](const View::Unit&, const View::Unit&) { return true; };
      const List left_only = WithoutPartner(left, right, any);
      const List right_only = WithoutPartner(right, left, any);
      if (!left_only.empty() || !right_only.empty()) {
        return Order(left_only.empty() ? "" : left_only[0].name,
                     right_only.empty() ? "" : right_only[0].name);
      }
    } else if (left.size() != right.size()) {
      return Order(left.size(), right.size());
    }
    for (std::size_t i = 0; i < left.size(); ++i) {
      if (const int order = Compare(*left[i].value, *right[i].value)) return order;
    }
    return 0;
  }

  // By the first name that has an unmatched trait, and the least value under it.
  static int CompareTraits(const List& left, const List& right) {
    const List left_only = WithoutPartner(left, right, Equal);
    const List right_only = WithoutPartner(right, left, Equal);
    if (left_only.empty() || right_only.empty())
      return Order(!left_only.empty(), !right_only.empty());
    const int names = Order(left_only[0].name, right_only[0].name);
    return names != 0 ? names : Compare(GetLeast(left_only), GetLeast(right_only));
  }
  static const View::Unit& GetLeast(const List& list) {
    const Named* least = &list[0];
    for (const Named& one : list) {
      if (one.name == least->name && Compare(*one.value, *least->value) == -1) least = &one;
    }
    return *least->value;
  }
};

// Small trees of few names and values, so that equal parts, repeated trait names and unmatched
// names are frequent.
class RandomTrees {
 public:
  RandomTrees(unsigned int seed, bool nans) : random_(seed), nans_(nans) {}

  OwnedUnit Make(int depth) {
    OwnedUnit unit;
    const int kind = depth == 0 ? Roll(2) : Roll(5);
    if (kind == 0) {
      unit = Nil();
    } else if (kind == 1) {
      unit = Double(nans_ && Roll(6) == 0 ? kNaN : Roll(2));
    } else if (kind == 2) {
      unit = Array();
      for (int i = Roll(3); i > 0; --i) AppendToArray(*unit, Make(depth - 1));
    } else {
      unit = Composite();
      for (int i = Roll(3); i > 0; --i) AddProperty(*unit, Named(), Make(depth - 1), Factory());
    }
    if (depth != 0 && Roll(2) == 0) {
      for (int i = Roll(4); i > 0; --i) unit = With(std::move(unit), Named(), Make(depth - 1));
    }
    return unit;
  }

 private:
  int Roll(int sides) { return std::uniform_int_distribution<int>(0, sides - 1)(random_); }
  Name Named() { return Roll(8) == 0 ? Name("") : Roll(2) == 0 ? Name("a") : Name("b"); }

  std::mt19937 random_;
  bool nans_;
};

TEST(Order, AgreesWithItsDefinitionOnRandomTrees) {
  int equal = 0;
  int below = 0;
  for (const bool nans : {false, true}) {
    RandomTrees trees(nans ? 4711 : 1234, nans);
    std::vector<OwnedUnit> units;
    for (int i = 0; i < 250; ++i) units.push_back(trees.Make(3));
    for (const OwnedUnit& a : units) {
      for (const OwnedUnit& b : units) {
        const int order = Compare(*a, *b);
        const bool same = UnitEqual(*a, *b);
        ASSERT_EQ(Reference::Compare(*a, *b), order);
        ASSERT_EQ(Reference::Equal(*a, *b), same);
        ASSERT_EQ(Reference::Included(*a, *b), TraitsIncluded(*a, *b));
        ASSERT_TRUE(!same || order == 0);
        ASSERT_TRUE(nans || order == -Compare(*b, *a));
        equal += same && a != b;
        below += order == -1;
      }
    }
  }
  EXPECT_GT(equal, 1000);  // the trees are fit to find something
  EXPECT_GT(below, 1000);
}

TEST(Copy, EqualsItsSourceAtEveryLevel) {
  RandomTrees trees(99, false);
  for (int i = 0; i < 300; ++i) {
    const OwnedUnit unit = trees.Make(4);
    ASSERT_TRUE(UnitEqual(*unit, *CopyUnit(*unit, Factory())));
  }
  // All of it comes from the factory that is given: 17 elements, their array, the trait with its
  // value, the property and the composite.
  OwnedUnit kinds = Array();
  for (OwnedUnit& unit : OneOfEachKind()) AppendToArray(*kinds, std::move(unit));
  const Por::Streams::PlainFactory factory;
  CopyUnit(*Composite("a", With(std::move(kinds), "t", Nil())), factory);
  EXPECT_EQ(factory.made, 22u);
  // A NaN makes a copy that is not equal, but is there.
  const OwnedUnit nan = CopyUnit(*With(Nil(), "t", Double(kNaN)), Factory());
  EXPECT_TRUE(std::isnan(GetValue<double>(GetUniqueTraitByName(*nan, "t"))));
}

// A dword that counts the visits of all of its kind.
class CountedUnit final : public Construction::Unit {
 public:
  explicit CountedUnit(unsigned int value) : inner_(DWord(value)) {}

  void Accept(View::UnitReader& reader) const override {
    ++visits;
    inner_->Accept(reader);
  }
  const View::Traits& GetTraits() const override { return std::as_const(*inner_).GetTraits(); }
  void Accept(Modification::UnitWriter& writer) override { inner_->Accept(writer); }
  void Accept(Construction::UnitBuilder& builder) override { inner_->Accept(builder); }
  Construction::Traits& GetTraits() override { return inner_->GetTraits(); }

  static inline unsigned long long visits = 0;

 private:
  const OwnedUnit inner_;
};

OwnedUnit Counted(unsigned int value) {
  return std::make_unique<CountedUnit>(value);
}

template <class Function>
unsigned long long CountVisits(Function function) {
  CountedUnit::visits = 0;
  function();
  return CountedUnit::visits;
}

OwnedUnit Chain(int depth, unsigned int end) {
  OwnedUnit unit = Counted(end);
  for (int i = 0; i < depth; ++i) unit = With(Counted(0), "x", std::move(unit));
  return unit;
}

// Each level has the rest of the tree and, beside it, a trait of the same name that differs.
OwnedUnit Ladder(int depth, unsigned int end) {
  OwnedUnit unit = Counted(end);
  for (int i = 0; i < depth; ++i) {
    unit = With(With(Counted(0), "x", std::move(unit)), "x", Counted(7));
  }
  return unit;
}

TEST(Cost, OfNestedTraitsIsNotExponential) {
  constexpr int kDepth = 900;
  const auto a = Chain(kDepth, 1);
  const auto b = Chain(kDepth, 1);
  const auto c = Chain(kDepth, 2);
  // Two visits for each of the pairs, which are as many as levels.
  EXPECT_LE(CountVisits([&] { EXPECT_TRUE(UnitEqual(*a, *b)); }), 2u * (kDepth + 1));
  EXPECT_LE(CountVisits([&] { EXPECT_FALSE(UnitEqual(*a, *c)); }), 2u * (kDepth + 1));
  EXPECT_LE(CountVisits([&] { EXPECT_EQ(-1, Compare(*a, *c)); }), 2u * kDepth * kDepth);
  EXPECT_LE(CountVisits([&] { EXPECT_EQ(0, Compare(*a, *b)); }), 4u * (kDepth + 1));

  const auto d = Ladder(kDepth, 1);
  const auto e = Ladder(kDepth, 1);
  const auto f = Ladder(kDepth, 2);
  // Of the four pairs of a level at most each meets once.
  EXPECT_LE(CountVisits([&] { EXPECT_TRUE(UnitEqual(*d, *e)); }), 8u * (kDepth + 1));
  EXPECT_LE(CountVisits([&] { EXPECT_FALSE(UnitEqual(*d, *f)); }), 8u * (kDepth + 1));
  EXPECT_LE(CountVisits([&] { EXPECT_EQ(-1, Compare(*d, *f)); }), 8u * kDepth * kDepth);
}

// Siblings that are long chains side by side: their order is asked for on C(depth, depth / 2) ways.
OwnedUnit Thicket(int depth, unsigned int end) {
  OwnedUnit unit = Counted(end);
  for (int i = 1; i <= depth; ++i) {
    unit = With(With(Counted(0), "x", std::move(unit)), "x",
                Chain(i / 2, end + 5 + static_cast<unsigned int>(i)));
  }
  return unit;
}

TEST(Cost, OfTheLeastUnmatchedTraitIsNotExponential) {
  for (const auto& [left_end, right_end] : {std::pair(1u, 2u), std::pair(2u, 1u)}) {
    constexpr int kDepth = 40;
    const auto a = Thicket(kDepth, left_end);
    const auto b = Thicket(kDepth, right_end);
    const auto visits = CountVisits([&] { EXPECT_NE(0, Compare(*a, *b)); });
    EXPECT_LE(visits, 230'000u);  // a quarter of the square of the 962 units
  }
}

// A group of traits whose partners all stand one place further, asked for again on each level.
TEST(Cost, OfMovedGroupsIsNoSearchForEachTrait) {
  constexpr unsigned int kTraits = 100, kDepth = 100;
  const auto make = [](unsigned int first) {
    OwnedUnit unit = Counted(0);
    for (unsigned int i = 0; i < kTraits; ++i)
      unit = With(std::move(unit), "t", Counted(first + i));
    for (unsigned int i = 0; i < kDepth; ++i) unit = With(Counted(0), "x", std::move(unit));
    return unit;
  };
  const auto a = make(1), b = make(2);
  // The trait without a partner meets all others, on both sides; each other one meets two.
  constexpr unsigned int kMeetings = 2 * kTraits + 2 * kTraits + kDepth;
  EXPECT_LE(CountVisits([&] { EXPECT_EQ(-1, Compare(*a, *b)); }), 2 * kMeetings * kDepth);
  EXPECT_LE(CountVisits([&] { EXPECT_EQ(1, Compare(*b, *a)); }), 2 * kMeetings * kDepth);
}

// The trees that come in are at most 1,000 levels deep, and whoever compares or copies them may be
// on a thread with a small stack.
TEST(Cost, OfTheStackAllowsForTheDeepestTrees) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr std::size_t kStack = 2u << 20;  // frames with red zones
#else
  constexpr std::size_t kStack = 512u << 10;
#endif
  const auto check = [](void*) -> void* {
    using Step = OwnedUnit (*)(OwnedUnit);
    const Step steps[] = {
        [](OwnedUnit unit) { return Array(std::move(unit)); },
        [](OwnedUnit unit) { return Composite("a", std::move(unit)); },
        [](OwnedUnit unit) { return With(Nil(), "t", std::move(unit)); },
        [](OwnedUnit unit) { return With(With(Nil(), "t", DWord(1000)), "t", std::move(unit)); },
    };
    for (const Step step : steps) {
      OwnedUnit a = DWord(1);
      OwnedUnit c = DWord(2);
      for (unsigned int i = 1; i < kMaxUnitDepth; ++i) {
        a = step(std::move(a));
        c = step(std::move(c));
      }
      const OwnedUnit b = CopyUnit(*a, Factory());
      EXPECT_TRUE(UnitEqual(*a, *b));
      EXPECT_FALSE(UnitEqual(*a, *c));
      EXPECT_EQ(0, Compare(*a, *b));
      EXPECT_EQ(-1, Compare(*a, *c));
    }
    return nullptr;
  };
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStack);
  pthread_t thread;
  ASSERT_EQ(0, pthread_create(&thread, &attributes, check, nullptr));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

}  // namespace
}  // namespace Por::Util
