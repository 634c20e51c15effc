// Units, their values and faces, the factory, traits, destruction.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "enterprise/common/por/array_value_holder.h"
#include "enterprise/common/por/composite_value_holder.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"
#include "tests/support/allocation_watch.h"

namespace Por {
namespace {

using namespace Por::Test;  // NOLINT: the vocabulary of these tests

unsigned int GetDWord(const View::Unit& unit) {
  return Util::GetValue<unsigned int>(unit);
}

// Elements and properties as text: "1 2 3", "a=1 b=2"; traits as "x=1 x=2".
std::string Show(const View::ArrayValue& array) {
  std::string text;
  auto show = MakeProcessor<const View::Unit>(
      [&](const View::Unit& unit) { text += std::to_string(GetDWord(unit)) + " "; });
  array.ForEach(show);
  return text;
}
template <class Item>
auto AppendTo(std::string& text) {
  return MakeProcessor<Item>([&](Item& item) {
    text += item.GetName().GetText() + ("=" + std::to_string(GetDWord(item.GetValue()))) + " ";
  });
}
std::string Show(const View::CompositeValue& composite) {
  std::string text;
  auto show = AppendTo<const View::Property>(text);
  composite.ForEach(show);
  return text;
}
template <class... Name>
std::string ShowTraits(const View::Unit& unit, const Name&... name) {
  std::string text;
  auto show = AppendTo<const View::Trait>(text);
  unit.GetTraits().ForEach(name..., show);
  return text;
}

TEST(Unit, IsVisitedAsItsKindAndNamesIt) {
  const char16_t* const kWords[] = {u"nil",    u"boolean",  u"byte",   u"sbyte",  u"word",
                                    u"sword",  u"dword",    u"sdword", u"qword",  u"sqword",
                                    u"double", u"blob",     u"guid",   u"string", u"error",
                                    u"array",  u"composite"};
  const std::vector<OwnedUnit> units = OneOfEachKind();
  for (unsigned int i = 0; i < std::size(kWords); ++i) {
    EXPECT_EQ(i, Util::GetValueTypeIndex(*units[i]));
    EXPECT_EQ(kWords[i], Util::GetTypeName(i));
  }
  EXPECT_EQ(u"17", Util::GetTypeName(17));
  EXPECT_EQ(u"4294967295", Util::GetTypeName(0xFFFFFFFF));
}

TEST(Unit, CostsOneAllocationForAScalarAndNoneForAVisit) {
  const TestSupport::AllocationWatch watch;
  const OwnedUnit dword = DWord(5);
  const OwnedUnit array = Factory().CreateArray();
  const OwnedUnit composite = Factory().CreateComposite();
  EXPECT_EQ(3u, watch.GetCount());
  Util::SetValue<unsigned int>(*dword, 6);
  EXPECT_EQ(6u, GetDWord(*dword));
  EXPECT_EQ(5u, Util::GetValue<unsigned long long>(*dword, 5));
  EXPECT_EQ("", ShowTraits(*composite));
  EXPECT_EQ(0u, composite->GetTraits().Remove("x"));
  EXPECT_NE(0, Util::Compare(*dword, *array));
  EXPECT_EQ(3u, watch.GetCount());
  // Property with a literal name, its value, and the list of the composite.
  Util::AddProperty(*composite, "name", Nil(), Factory());
  EXPECT_EQ(6u, watch.GetCount());
}

TEST(Array, ChecksRangesWhereItMust) {
  ArrayValueHolder array;
  auto read =
      MakeProcessor<const View::Unit>([](const View::Unit&) { FAIL() << "no such element"; });
  const View::ArrayValue& view = array;
  view.ForEach(read);
  view.Front(read);
  view.Back(read);
  array.PopBack();
  array.PopFront();
  array.Clear();
  const auto out_of_range = [](auto fail) {
    const Thrown thrown = Catch(fail);
    EXPECT_EQ("ModuleError fa000f: POR: Out of range.", thrown.error);
    EXPECT_EQ("enterprise/common/por/array_value_holder:53 CheckOutOfRange", thrown.place);
  };
  out_of_range([&] { view.At(0, read); });
  out_of_range([&] { array.Erase(0); });
  out_of_range([&] { array.Insert(1, DWord(1)); });
  out_of_range([&] { array.Insert(1, *DWord(1)); });
  out_of_range([&] { array.Insert(std::numeric_limits<unsigned long long>::max(), DWord(1)); });
  array.Insert(0, DWord(2));
  array.Insert(1, *DWord(4));
  array.Insert(1, DWord(3));
  array.PushFront(DWord(1));
  array.PushBack(DWord(5));
  EXPECT_EQ("1 2 3 4 5 ", Show(array));
  out_of_range([&] { view.At(5, read); });
  array.Erase(4);
  array.Erase(1);
  array.PopFront();
  EXPECT_EQ("3 4 ", Show(array));
  array.PopBack();
  array.PopBack();
  EXPECT_TRUE(array.IsEmpty());
}

TEST(Array, TakesCopiesOfItsOwnElements) {
  for (unsigned int size = 1; size < 40; ++size) {
    ArrayValueHolder array;
    std::string expected = std::to_string(size) + " " + std::to_string(size) + " ";
    for (unsigned int i = 1; i <= size; ++i) {
      array.PushBack(DWord(i));
      expected += std::to_string(i) + " ";
    }
    const View::Unit* last = nullptr;
    auto take = MakeProcessor<const View::Unit>([&](const View::Unit& unit) { last = &unit; });
    std::as_const(array).Back(take);
    array.PushBack(*last);
    array.PushFront(*last);
    array.Insert(1, *last);
    EXPECT_EQ(expected + std::to_string(size) + " ", Show(array));
  }
}

TEST(Composite, KeepsNamesSortedAndOnce) {
  CompositeValueHolder composite;
  EXPECT_EQ("", Show(composite));
  unsigned int value = 0;
  for (const Name& name : {Name("b"), Name("a"), Name("c"), Name("Z"), Name("c"), Name("b")}) {
    composite.Set(Factory().CreateProperty(name, DWord(++value)));
  }
  EXPECT_EQ("Z=4 a=2 b=6 c=5 ", Show(composite));
  composite.Remove("b");
  composite.Remove("nothing");
  EXPECT_EQ("Z=4 a=2 c=5 ", Show(composite));
  std::string found;
  auto find = AppendTo<const View::Property>(found);
  for (const Name& name :
       {Name(""), Name("A"), Name("Z"), Name("a"), Name("b"), Name("c"), Name("d")}) {
    const std::size_t before = found.size();
    const bool is_there = std::as_const(composite).Find(name, find);
    EXPECT_EQ(is_there, found.size() != before);
  }
  EXPECT_EQ("Z=4 a=2 c=5 ", found);
}

TEST(Composite, StaysAsItWasWhenMemoryIsOut) {
  CompositeValueHolder composite;
  const auto set_without_memory = [&](const Name& name) {
    OwnedProperty property = Factory().CreateProperty(name, DWord(9));
    const TestSupport::AllocationWatch watch(0, 1);
    EXPECT_THROW(composite.Set(std::move(property)), std::bad_alloc);
  };
  set_without_memory("a");
  EXPECT_EQ("", Show(composite));
  for (const Name& name : {Name("b"), Name("c"), Name("d")}) {
    composite.Set(Factory().CreateProperty(name, DWord(1)));
  }
  set_without_memory("a");
  set_without_memory("e");
  EXPECT_EQ("b=1 c=1 d=1 ", Show(composite));
}

TEST(Composite, IteratorsShareTheirPositionWithTheirCopies) {
  CompositeValueHolder composite;
  EXPECT_FALSE(composite.GetIterator().IsValid());
  composite.Set(Factory().CreateProperty("a", DWord(1)));
  composite.Set(Factory().CreateProperty("b", DWord(2)));
  PropertyIterator<Construction::Property> iterator = composite.GetIterator();
  PropertyIterator<Construction::Property> copy = iterator;
  Util::SetValue<unsigned int>(iterator.Current().GetValue(), 7u);
  copy.Advance();
  EXPECT_EQ(Name("b"), iterator.Current().GetName());
  iterator.Advance();
  EXPECT_FALSE(copy.IsValid());
  copy.Advance();
  EXPECT_FALSE(iterator.IsValid());
  EXPECT_EQ(7u, GetDWord(std::as_const(composite).GetIterator().Current().GetValue()));
}

TEST(Traits, AreOrderedByNameThenValueWithoutRepeats) {
  const OwnedUnit unit = Nil();
  for (const unsigned int value : {2u, 1u, 2u, 1u})
    Util::AddTrait(*unit, "x", DWord(value), Factory());
  Util::AddTrait(*unit, "b", DWord(9), Factory());
  EXPECT_EQ("b=9 x=1 x=2 ", ShowTraits(*unit));
  EXPECT_EQ("x=1 x=2 ", ShowTraits(*unit, Name("x")));
  EXPECT_EQ("", ShowTraits(*unit, Name("y")));
  int seen = 0;
  auto first = MakeProcessor<const View::Trait>([&](const View::Trait&) { return ++seen == 1; });
  unit->GetTraits().ForEach(first);
  unit->GetTraits().ForEach("x", first);
  EXPECT_EQ(3, seen);  // the second walk began at 2
  EXPECT_EQ(2u, unit->GetTraits().Remove("x"));
  EXPECT_EQ(0u, unit->GetTraits().Remove("x"));
  EXPECT_EQ("b=9 ", ShowTraits(*unit));
}

TEST(Traits, KeepEveryNaNAndStayUsable) {
  const OwnedUnit unit = Nil();
  const double values[] = {1, std::nan(""), 0, std::nan(""), 2, -1, std::nan("")};
  for (int round = 0; round < 20; ++round) {
    for (const double value : values) Util::AddTrait(*unit, "x", Double(value), Factory());
  }
  int nans = 0;
  auto count = MakeProcessor<const View::Trait>([&](const View::Trait& trait) {
    nans += std::isnan(Util::GetValue<double>(trait.GetValue())) ? 1 : 0;
  });
  unit->GetTraits().ForEach("x", count);
  EXPECT_EQ(60, nans);
  EXPECT_GE(unit->GetTraits().Remove("x"), 64u);
}

TEST(Holders, RefuseNull) {
  const auto refused = [](const char* place, auto fail) {
    const Thrown thrown = Catch(fail);
    EXPECT_EQ("ModuleError fa000b: POR: Null units are forbidden.", thrown.error);
    EXPECT_EQ(std::string("enterprise/common/por/").append(place), thrown.place);
  };
  refused("property_holder:36 PropertyHolder", [] { Factory().CreateProperty("x", nullptr); });
  refused("trait_holder:37 TraitHolder", [] { Factory().CreateTrait("x", nullptr); });
  refused("traits_holder:109 Add", [] { Nil()->GetTraits().Add(nullptr); });
  refused("composite_value_holder:104 Set", [] { CompositeValueHolder().Set(nullptr); });
}

TEST(ErrorUnit, KeepsAChainOfItsOwn) {
  static constexpr Common::SourceFile kFile{"some/file"};
  OwnedUnit unit;
  Common::String text;
  {
    Common::Error error = Common::MakeTracedError(0xFA0001, u"outer", kFile.At("Outer", 10));
    error.SetReason(Common::MakePathError(0x40007, u"inner", "/some/path", kFile.At("Inner", 20)));
    text = error.ToString();
    unit = ErrorUnit(error);
    EXPECT_NE(error.GetRecord(), Util::GetValue<Common::Error>(*unit).GetRecord());
  }
  EXPECT_EQ(text, Util::GetValue<Common::Error>(*unit).ToString());
  EXPECT_EQ(0xFA0001u, Util::GetValue<Common::Error>(*unit).GetCode());
  // Setting shares.
  const Common::Error other(5, u"shared", Common::LineTag());
  Util::SetValue<Common::Error>(*unit, other);
  EXPECT_EQ(other.GetRecord(), Util::GetValue<Common::Error>(*unit).GetRecord());
  EXPECT_EQ(nullptr, Util::GetValue<Common::Error>(*ErrorUnit({})).GetRecord());
  // A copy that fails leaves no error, and the unit is made all the same.
  const TestSupport::AllocationWatch watch(0, 1);
  unit = ErrorUnit(other);
  EXPECT_EQ(nullptr, Util::GetValue<Common::Error>(*unit).GetRecord());
}

// A tree of `depth` levels; each level hangs in an array, a composite or a trait.
OwnedUnit MakeDeep(int depth) {
  OwnedUnit unit = DWord(1);
  for (int i = 0; i < depth; ++i) {
    unit = i % 3 == 0   ? Array(std::move(unit))
           : i % 3 == 1 ? Composite("a", std::move(unit))
                        : With(DWord(0), "t", std::move(unit));
  }
  return unit;
}

TEST(Tree, OfAnyDepthIsDestroyedWithoutRecursionOrMemory) {
  OwnedUnit unit = Array(DWord(0), MakeDeep(1'000'000), MakeDeep(1'000));
  const TestSupport::AllocationWatch watch;
  unit.reset();
  EXPECT_EQ(0u, watch.GetCount());
  // A part is dropped the same way.
  ArrayValueHolder array;
  array.PushBack(MakeDeep(10'000));
  array.Erase(0);
  EXPECT_TRUE(array.IsEmpty());
}

TEST(Tree, ReadFromAStreamAndChangedIsDestroyedDeepBelowOthers) {
  for (const int depth : {40, 60, 64, 1000}) {
    OwnedUnit unit =
        Composite("a", Composite("b", Array(Text(u"longer than the unit could hold"))));
    for (int i = 0; i < 12; ++i) unit = Composite("c", std::move(unit));
    std::vector<unsigned char> stream;
    Util::WriteUnitBlob(*unit, stream);
    unit = Util::ReadUnitBlob(stream.data(), stream.size(), Factory());
    Util::AddProperty(*unit, "added", MakeDeep(100), Factory());
    for (int i = 0; i < depth; ++i) unit = Array(std::move(unit), Nil());
    unit.reset();
  }
}

}  // namespace
}  // namespace Por
