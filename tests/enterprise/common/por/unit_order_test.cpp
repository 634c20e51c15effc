// Equality, order and copy.

#include <gtest/gtest.h>
#include <pthread.h>

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
#include "enterprise/common/por/visitor.h"
#include "tests/enterprise/common/por/make_unit.h"

namespace Por::Util {
namespace {

using namespace Por::Test;  // NOLINT: the vocabulary of these tests

OwnedUnit Blob(const std::vector<unsigned char>& bytes) {
  return Factory().CreateBlob(bytes);
}
OwnedUnit ErrorUnit(const Common::Error& error) {
  return Factory().CreateError(error);
}
OwnedUnit GuidUnit(std::initializer_list<unsigned char> bytes) {
  Common::Guid guid;
  std::copy(bytes.begin(), bytes.end(), guid.bytes.begin());
  return Factory().CreateGuid(guid);
}
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

template <class... Units>
std::vector<OwnedUnit> List(Units... units) {
  std::vector<OwnedUnit> list;
  (list.push_back(std::move(units)), ...);
  return list;
}

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
  ExpectAscending(List(Nil(), Factory().CreateBoolean(true), Factory().CreateByte(9),
                       Factory().CreateSByte(8), Word(7), Factory().CreateSWord(6), DWord(5),
                       Factory().CreateSDWord(4), QWord(3), Factory().CreateSQWord(2), Double(1),
                       Blob({}), Guid(0), Text(u""), ErrorUnit({}), Array(), Composite()));
}

TEST(Order, OfScalarsIsNumeric) {
  ExpectAscending(List(Bool(false), Bool(true)));
  ExpectAscending(List(Factory().CreateByte(0), Factory().CreateByte(200)));
  ExpectAscending(List(Factory().CreateSByte(-128), Factory().CreateSByte(-1),
                       Factory().CreateSByte(0), Factory().CreateSByte(127)));
  ExpectAscending(List(Factory().CreateSWord(-5), Factory().CreateSWord(3)));
  ExpectAscending(List(DWord(1), DWord(0x80000000)));
  ExpectAscending(List(Factory().CreateSDWord(-2000000000), Factory().CreateSDWord(2000000000)));
  ExpectAscending(List(QWord(1), QWord(1ull << 63)));
  ExpectAscending(List(Factory().CreateSQWord(std::numeric_limits<long long>::min()),
                       Factory().CreateSQWord(std::numeric_limits<long long>::max())));
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
  EXPECT_FALSE(Less(*nan, *nan));
}

TEST(Order, OfSequencesPutsPrefixesFirstAndArraysBySize) {
  ExpectAscending(List(Blob({}), Blob({0}), Blob({0, 0}), Blob({1}), Blob({127, 5}), Blob({128})));
  ExpectAscending(List(Text(u""), Text(Common::String(1, 0)), Text(u"Z"), Text(u"a"), Text(u"aa"),
                       Text(u"\u00FF"), Text(u"\xD800"), Text(u"\xFFFF")));
  ExpectAscending(List(Array(), Array(DWord(9)), Array(DWord(1), DWord(2)),
                       Array(DWord(1), DWord(3)), Array(DWord(2), DWord(0)),
                       Array(Nil(), Nil(), Nil())));
  // Put off: the pair of composites weighs more than what follows it.
  ExpectAscending(List(Array(Composite("a", DWord(1)), DWord(2), Array(DWord(5))),
                       Array(Composite("a", DWord(2)), DWord(1), Array(DWord(3))),
                       Array(Composite("a", DWord(2)), DWord(1), Array(DWord(4))),
                       Array(Composite("a", DWord(2)), DWord(2), Array(DWord(0)))));
}

TEST(Order, OfGuidsIsByNumbersThenBytes) {
  // The three leading groups are little-endian, so a later byte outweighs an earlier one.
  ExpectAscending(List(GuidUnit({2, 1, 0, 0}), GuidUnit({1, 2, 0, 0}), GuidUnit({0, 0, 0, 0x80})));
  ExpectAscending(List(GuidUnit({0, 0, 0, 0, 2, 1}), GuidUnit({0, 0, 0, 0, 1, 2})));
  ExpectAscending(List(GuidUnit({0, 0, 0, 0, 0, 0, 2, 1}), GuidUnit({0, 0, 0, 0, 0, 0, 1, 2})));
  ExpectAscending(List(GuidUnit({0, 0, 0, 0, 0, 0, 0, 0, 1, 2}),
                       GuidUnit({0, 0, 0, 0, 0, 0, 0, 0, 2, 1}),
                       GuidUnit({0, 0, 0, 0, 0, 0, 0, 0, 0x80})));
}

TEST(Order, OfCompositesIsByUnmatchedNamesThenValues) {
  ExpectAscending(List(Composite(), Composite("a", DWord(1)), Composite("a", DWord(2))));
  EXPECT_EQ(-1, Compare(*Composite("a", DWord(9)), *Composite("b", DWord(1))));
  EXPECT_EQ(1, Compare(*Composite("a", DWord(1), "b", DWord(1)), *Composite("a", DWord(9))));
  EXPECT_EQ(-1, Compare(*Composite("m", DWord(9)), *Composite("a", Nil(), "m", DWord(1))));
  // The first unmatched name of each side: "b" against "c", whatever follows.
  EXPECT_EQ(-1, Compare(*Composite("a", DWord(9), "b", Nil(), "z", Nil()),
                        *Composite("a", DWord(1), "c", Nil(), "d", Nil())));
  // An unmatched empty name weighs as much as none.
  EXPECT_EQ(0, Compare(*Composite("", Nil()), *Composite()));
  EXPECT_FALSE(UnitEqual(*Composite("", Nil()), *Composite()));
  // Values put off are dropped when a name decides.
  EXPECT_EQ(
      1, Compare(*Composite("a", Array(DWord(1)), "b", Nil()), *Composite("a", Array(DWord(2)))));
  ExpectAscending(List(Composite("a", Array(DWord(1)), "b", DWord(2)),
                       Composite("a", Array(DWord(1)), "b", DWord(3)),
                       Composite("a", Array(DWord(2)), "b", DWord(1))));
}

TEST(Order, OfTraitsIsByUnmatchedOnes) {
  const auto traits = [](std::initializer_list<std::pair<Name, unsigned int>> list) {
    OwnedUnit unit = DWord(0);
    for (const auto& [name, value] : list) AddTrait(*unit, name, DWord(value), Factory());
    return unit;
  };
  ExpectAscending(List(traits({}), traits({{"a", 1}}), traits({{"a", 1}, {"b", 1}}),
                       traits({{"a", 2}}), traits({{"b", 0}})));
  // Values come before traits.
  EXPECT_EQ(-1, Compare(*With(DWord(1), "z", Nil()), *DWord(2)));
  // The least unmatched of a name: 1 is paired, so 3 stands against 2.
  EXPECT_EQ(1, Compare(*traits({{"x", 1}, {"x", 3}}), *traits({{"x", 1}, {"x", 2}, {"x", 9}})));
  // Order of additions does not matter, nor does a repeat.
  EXPECT_TRUE(
      UnitEqual(*traits({{"x", 1}, {"y", 1}, {"x", 2}}), *traits({{"x", 2}, {"x", 1}, {"y", 1}})));
  EXPECT_FALSE(UnitEqual(*traits({{"x", 1}}), *traits({{"x", 1}, {"x", 2}})));
  EXPECT_TRUE(UnitValueEqual(*traits({{"x", 1}}), *traits({{"y", 1}})));
  EXPECT_TRUE(
      TraitsIncluded(*traits({{"x", 2}}), *traits({{"a", 0}, {"x", 1}, {"x", 2}, {"y", 0}})));
  EXPECT_FALSE(TraitsIncluded(*traits({{"x", 1}, {"x", 2}}), *traits({{"x", 1}})));
  EXPECT_FALSE(TraitsIncluded(*traits({{"x", 3}}), *traits({{"x", 1}, {"y", 3}})));
}

TEST(Order, OfErrorsIsByCodesThenChainsThenParameters) {
  static constexpr Common::SourceFile kFile{"some/file"};
  const Common::LineTag tag = kFile.At("Function", 5);
  const auto chain = [&](std::initializer_list<std::uint32_t> codes) {
    Common::Error error;
    for (auto code = std::rbegin(codes); code != std::rend(codes); ++code) {
      Common::Error head(*code, u"text", tag);
      head.SetReason(error);
      error = head;
    }
    return error;
  };
  const auto with_reason = [](Common::Error head, const Common::Error& reason) {
    head.SetReason(reason);
    return head;
  };
  const auto path = [&](const char* text) { return Common::MakePathError(7, u"text", text, tag); };
  const auto named = [&](const char16_t* where, const char16_t* name) {
    return Common::MakePathAndNameError(7, u"text", where, name, tag);
  };
  const std::vector<std::vector<Common::Error>> ascending = {
      {{},
       chain({1}),
       chain({1, 1}),
       chain({1, 1, 5}),
       chain({1, 2}),
       chain({2}),
       chain({0x80000000})},
      // Without a parameter that counts, then by value; by bytes, not by length.
      {chain({7}), path(""), path("b"), path("ba"), path("c"), path("\xC3\xA9")},
      // The shorter text first.
      {named(u"b", u"zz"), named(u"c", u"a"), named(u"aa", u"")},
      {named(u"a", u"b"), named(u"a", u"aa")},
      // A reason weighs more than the parameters of its head.
      {with_reason(path("z"), chain({1})), with_reason(path("y"), path("a")),
       with_reason(path("x"), path("b"))},
  };
  for (const auto& errors : ascending) {
    for (std::size_t i = 0; i < errors.size(); ++i) {
      for (std::size_t k = 0; k < errors.size(); ++k) {
        EXPECT_EQ(i < k   ? -1
                  : i > k ? 1
                          : 0,
                  CompareErrors(errors[i], errors[k]))
            << i << " and " << k;
      }
    }
  }
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
    for (const View::Trait* left : Traits(a)) {
      bool found = false;
      for (const View::Trait* right : Traits(b)) {
        found = found ||
                (left->GetName() == right->GetName() && Equal(left->GetValue(), right->GetValue()));
      }
      if (!found) return false;
    }
    return true;
  }

  static int Compare(const View::Unit& a, const View::Unit& b) {
    if (&a == &b) return 0;
    const int values = CompareValues(a, b);
    return values != 0 ? values : CompareTraits(a, b);
  }

 private:
  static std::vector<const View::Trait*> Traits(const View::Unit& unit) {
    std::vector<const View::Trait*> list;
    auto add = MakeProcessor<const View::Trait>([&](const View::Trait& t) { list.push_back(&t); });
    unit.GetTraits().ForEach(add);
    return list;
  }
  static std::vector<const View::Unit*> Elements(const View::Unit& unit) {
    std::vector<const View::Unit*> list;
    auto add = MakeProcessor<const View::Unit>([&](const View::Unit& u) { list.push_back(&u); });
    Detail::VisitValue<View::ArrayValue>(
        unit, [&](const View::ArrayValue& value) { value.ForEach(add); });
    return list;
  }
  static std::vector<const View::Property*> Properties(const View::Unit& unit) {
    std::vector<const View::Property*> list;
    auto add =
        MakeProcessor<const View::Property>([&](const View::Property& p) { list.push_back(&p); });
    Detail::VisitValue<View::CompositeValue>(
        unit, [&](const View::CompositeValue& value) { value.ForEach(add); });
    return list;
  }

  static bool ValueEqual(const View::Unit& a, const View::Unit& b) {
    const unsigned int kind = GetValueTypeIndex(a);
    if (kind != GetValueTypeIndex(b)) return false;
    if (kind == kNilIndex) return true;
    if (kind == kArrayIndex) {
      const auto left = Elements(a);
      const auto right = Elements(b);
      bool equal = left.size() == right.size();
      for (std::size_t i = 0; equal && i < left.size(); ++i) equal = Equal(*left[i], *right[i]);
      return equal;
    }
    if (kind == kCompositeIndex) {
      const auto left = Properties(a);
      const auto right = Properties(b);
      bool equal = left.size() == right.size();
      for (std::size_t i = 0; equal && i < left.size(); ++i) {
        equal = left[i]->GetName() == right[i]->GetName() &&
                Equal(left[i]->GetValue(), right[i]->GetValue());
      }
      return equal;
    }
    return GetValue<double>(a) == GetValue<double>(b);
  }

  static int CompareValues(const View::Unit& a, const View::Unit& b) {
    const unsigned int kind = GetValueTypeIndex(a);
    if (kind != GetValueTypeIndex(b)) return kind < GetValueTypeIndex(b) ? -1 : 1;
    if (kind == kNilIndex) return 0;
    if (kind == kArrayIndex) {
      const auto left = Elements(a);
      const auto right = Elements(b);
      if (left.size() != right.size()) return left.size() < right.size() ? -1 : 1;
      for (std::size_t i = 0; i < left.size(); ++i) {
        if (const int order = Compare(*left[i], *right[i])) return order;
      }
      return 0;
    }
    if (kind == kCompositeIndex) return CompareProperties(Properties(a), Properties(b));
    const double left = GetValue<double>(a);
    const double right = GetValue<double>(b);
    return left < right ? -1 : left == right ? 0 : 1;
  }

  static int CompareProperties(const std::vector<const View::Property*>& left,
                               const std::vector<const View::Property*>& right) {
    const auto find = [](const auto& list, const Name& name) -> const View::Property* {
      for (const View::Property* property : list) {
        if (property->GetName() == name) return property;
      }
      return nullptr;
    };
    int kept = 0;
    const char* left_name = nullptr;
    const char* right_name = nullptr;
    for (const View::Property* property : left) {
      const View::Property* partner = find(right, property->GetName());
      if (partner == nullptr) {
        if (left_name == nullptr) left_name = property->GetName().GetText();
      } else if (left_name == nullptr && kept == 0) {
        kept = Compare(property->GetValue(), partner->GetValue());
      }
    }
    for (const View::Property* property : right) {
      if (right_name == nullptr && find(left, property->GetName()) == nullptr) {
        right_name = property->GetName().GetText();
      }
    }
    if (left_name == nullptr && right_name == nullptr) return kept;
    const int names = std::string(left_name == nullptr ? "" : left_name)
                          .compare(right_name == nullptr ? "" : right_name);
    return (names > 0) - (names < 0);
  }

  // The unmatched trait of one side that is kept, and whether the side is closed.
  struct Side {
    const View::Trait* kept = nullptr;
    bool closed = false;
    void Take(const View::Trait& trait) {
      if (closed) return;
      if (kept == nullptr) {
        kept = &trait;
      } else if (!(kept->GetName() == trait.GetName())) {
        closed = true;
      } else if (&trait.GetValue() != &kept->GetValue() &&
                 Compare(trait.GetValue(), kept->GetValue()) == -1) {
        kept = &trait;
      }
    }
  };

  static int CompareTraits(const View::Unit& a, const View::Unit& b) {
    Side left_side;
    Side right_side;
    const auto has_partner = [](const View::Trait& trait, const View::Unit& other) {
      for (const View::Trait* partner : Traits(other)) {
        if (partner->GetName() == trait.GetName() && Equal(trait.GetValue(), partner->GetValue())) {
          return partner;
        }
      }
      return static_cast<const View::Trait*>(nullptr);
    };
    for (const View::Trait* left : Traits(a)) {
      const View::Trait* partner = has_partner(*left, b);
      if (partner == nullptr) {
        left_side.Take(*left);
      } else if (left_side.kept == nullptr) {
        if (const int order = Compare(left->GetValue(), partner->GetValue())) return order;
      }
    }
    for (const View::Trait* right : Traits(b)) {
      if (has_partner(*right, a) == nullptr) right_side.Take(*right);
    }
    if (left_side.kept == nullptr || right_side.kept == nullptr) {
      return (left_side.kept != nullptr) - (right_side.kept != nullptr);
    }
    const int names = left_side.kept->GetName().Compare(right_side.kept->GetName());
    if (names != 0) return names < 0 ? -1 : 1;
    return Compare(left_side.kept->GetValue(), right_side.kept->GetValue());
  }
};

// Small trees of few names and values, so that equal parts, repeated trait names and unmatched
// names are frequent.
class RandomTrees {
 public:
  RandomTrees(unsigned int seed, bool nans) : random_(seed), nans_(nans) {}

  OwnedUnit Make(int depth) {
    OwnedUnit unit;
    switch (depth == 0 ? Roll(2) : Roll(5)) {
      case 0:
        unit = Nil();
        break;
      case 1:
        unit = Double(nans_ && Roll(6) == 0 ? kNaN : Roll(2));
        break;
      case 2:
        unit = Factory().CreateArray();
        for (int i = Roll(3); i > 0; --i) AppendToArray(*unit, Make(depth - 1));
        break;
      default:
        unit = Factory().CreateComposite();
        for (int i = Roll(3); i > 0; --i)
          AddProperty(*unit, MakeName(), Make(depth - 1), Factory());
    }
    if (depth != 0 && Roll(2) == 0) {
      for (int i = Roll(4); i > 0; --i) AddTrait(*unit, MakeName(), Make(depth - 1), Factory());
    }
    return unit;
  }

 private:
  int Roll(int sides) { return std::uniform_int_distribution<int>(0, sides - 1)(random_); }
  Name MakeName() {
    static const Name kNames[] = {"", "a", "b"};
    return kNames[Roll(8) == 0 ? 0 : 1 + Roll(2)];
  }

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
    const OwnedUnit copy = CopyUnit(*unit, Factory());
    ASSERT_NE(unit.get(), copy.get());
    ASSERT_TRUE(UnitEqual(*unit, *copy));
  }
  // A NaN makes a copy that is not equal, but is there.
  const OwnedUnit nan = CopyUnit(*With(Nil(), "t", Double(kNaN)), Factory());
  EXPECT_TRUE(std::isnan(GetValue<double>(GetUniqueTraitByName(*nan, "t"))));
}

// A unit of the reading face that counts how often its trees are visited.
class CountedUnit final : public View::Unit, private View::Traits {
 public:
  using Pointer = std::unique_ptr<CountedUnit>;

  // The traits must come in order.
  static Pointer Make(unsigned int value) { return std::make_unique<CountedUnit>(value); }
  Pointer static Make(unsigned int value, Pointer first, Pointer second = nullptr) {
    Pointer unit = Make(value);
    unit->traits_.push_back(std::make_unique<CountedTrait>(std::move(first)));
    if (second != nullptr)
      unit->traits_.push_back(std::make_unique<CountedTrait>(std::move(second)));
    return unit;
  }
  explicit CountedUnit(unsigned int value) : value_(value) {}

  void Accept(View::UnitReader& reader) const override {
    ++visits;
    reader.Visit(value_);
  }
  const View::Traits& GetTraits() const override { return *this; }

  static inline unsigned long long visits = 0;

 private:
  class Value final : public View::ScalarValue<unsigned int> {
   public:
    explicit Value(unsigned int value) : value_(value) {}
    unsigned int Get() const override { return value_; }

   private:
    unsigned int value_;
  };
  class CountedTrait final : public View::Trait {
   public:
    explicit CountedTrait(Pointer value) : value_(std::move(value)) {}
    const Name& GetName() const override { return name_; }
    const View::Unit& GetValue() const override { return *value_; }

   private:
    Name name_ = "x";
    Pointer value_;
  };

  void ForEach(ItemProcessor<const View::Trait>& processor) const override {
    for (const auto& trait : traits_) {
      if (processor.Process(*trait)) return;
    }
  }
  void ForEach(const Name& name, ItemProcessor<const View::Trait>& processor) const override {
    if (name == Name("x")) ForEach(processor);
  }

  Value value_;
  std::vector<std::unique_ptr<CountedTrait>> traits_;
};

template <class Function>
unsigned long long CountVisits(Function function) {
  CountedUnit::visits = 0;
  function();
  return CountedUnit::visits;
}

CountedUnit::Pointer Chain(int depth, unsigned int end) {
  auto unit = CountedUnit::Make(end);
  for (int i = 0; i < depth; ++i) unit = CountedUnit::Make(0, std::move(unit));
  return unit;
}

// Each level has the rest of the tree and, beside it, a trait of the same name that differs.
CountedUnit::Pointer Ladder(int depth, unsigned int end) {
  auto unit = CountedUnit::Make(end);
  for (int i = 0; i < depth; ++i) {
    unit = CountedUnit::Make(0, std::move(unit), CountedUnit::Make(7));
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
CountedUnit::Pointer Thicket(int depth, unsigned int end) {
  auto unit = CountedUnit::Make(end);
  for (int i = 1; i <= depth; ++i) {
    unit =
        CountedUnit::Make(0, std::move(unit), Chain(i / 2, end + 5 + static_cast<unsigned int>(i)));
  }
  return unit;
}

TEST(Cost, OfTheLeastUnmatchedTraitIsNotExponential) {
  for (const auto& [left_end, right_end] : {std::pair(1u, 2u), std::pair(2u, 1u)}) {
    constexpr int kDepth = 80;
    const auto a = Thicket(kDepth, left_end);
    const auto b = Thicket(kDepth, right_end);
    const auto visits = CountVisits([&] { EXPECT_NE(0, Compare(*a, *b)); });
    EXPECT_LE(visits, 3'000'000u);  // 3,400 units
  }
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
    for (int shape = 0; shape < 4; ++shape) {
      const auto make = [&](unsigned int end) {
        OwnedUnit unit = DWord(end);
        for (unsigned int i = 1; i < kMaxUnitDepth; ++i) {
          switch (shape) {
            case 0:
              unit = Array(std::move(unit));
              break;
            case 1:
              unit = Composite("a", std::move(unit));
              break;
            case 2:
              unit = With(Nil(), "t", std::move(unit));
              break;
            default:
              OwnedUnit parent = With(Nil(), "t", DWord(1000));
              AddTrait(*parent, "t", std::move(unit), Factory());
              unit = std::move(parent);
          }
        }
        return unit;
      };
      const OwnedUnit a = make(1);
      const OwnedUnit b = CopyUnit(*a, Factory());
      const OwnedUnit c = make(2);
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
