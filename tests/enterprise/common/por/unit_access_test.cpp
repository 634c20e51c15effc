#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

#include "core/common/unix/trace.h"
#include "enterprise/common/por/const_data_accessor.h"
#include "enterprise/common/por/data_accessor.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/type_mismatch_throwing_visitor.h"
#include "enterprise/common/por/types_mismatch.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

namespace Por::Test {
namespace {

using TestSupport::Utf8;

// What a call throws: its code, message and place, and whether the type is a ModuleError.
struct Thrown {
  std::uint32_t code = 0;
  std::string message;
  std::string file;
  std::string function;
  std::uint32_t line = 0;
  bool is_module_error = false;
};

template <class Function>
Thrown Catch(Function function) {
  try {
    function();
  } catch (const Common::Error& error) {
    const Common::LineTag tag = error.GetLineTag();
    return {error.GetCode(), Utf8(error.GetMessage()),
            tag.file,        tag.function,
            tag.line,        typeid(error) == typeid(ModuleError)};
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

// One unit of each kind, in the order of the type index.
std::vector<OwnedUnit> OneOfEachKind() {
  const Construction::UnitFactory& factory = Factory();
  std::vector<OwnedUnit> units;
  units.push_back(factory.CreateNil());
  units.push_back(factory.CreateBoolean(true));
  units.push_back(factory.CreateByte(2));
  units.push_back(factory.CreateSByte(-3));
  units.push_back(factory.CreateWord(4));
  units.push_back(factory.CreateSWord(-5));
  units.push_back(factory.CreateDWord(6));
  units.push_back(factory.CreateSDWord(-7));
  units.push_back(factory.CreateQWord(8));
  units.push_back(factory.CreateSQWord(-9));
  units.push_back(factory.CreateDouble(10.5));
  units.push_back(factory.CreateBlob({11}));
  units.push_back(Guid(12));
  units.push_back(factory.CreateString(u"13"));
  units.push_back(factory.CreateError(Common::Error(14, Common::LineTag())));
  units.push_back(factory.CreateArray());
  units.push_back(factory.CreateComposite());
  return units;
}

template <class T>
void ExpectOnlyKind(unsigned int index, const T& value, const T& other) {
  const std::vector<OwnedUnit> units = OneOfEachKind();
  for (unsigned int i = 0; i < units.size(); ++i) {
    SCOPED_TRACE(i);
    if (i == index) {
      EXPECT_EQ(Util::GetValue<T>(*units[i]), value);
      EXPECT_EQ(Util::GetValue<T>(*units[i], other), value);
      Util::SetValue<T>(*units[i], other);
      EXPECT_EQ(Util::GetValue<T>(*units[i]), other);
      continue;
    }
    EXPECT_THROW(Util::GetValue<T>(*units[i]), ModuleError);
    EXPECT_EQ(Util::GetValue<T>(*units[i], other), other);
    const OwnedUnit before = Util::CopyUnit(*units[i], Factory());
    EXPECT_THROW(Util::SetValue<T>(*units[i], other), ModuleError);
    EXPECT_TRUE(Util::UnitEqual(*units[i], *before));
  }
}

TEST(UnitValueAccess, ReadsAndWritesTheExactKindOnly) {
  ExpectOnlyKind<bool>(1, true, false);
  ExpectOnlyKind<signed char>(3, -3, 3);
  ExpectOnlyKind<unsigned int>(6, 6, 3);
  ExpectOnlyKind<long long>(9, -9, 3);
  ExpectOnlyKind<double>(10, 10.5, 3);
  ExpectOnlyKind<Common::Guid>(12, {{12}}, {{3}});
  ExpectOnlyKind<Common::String>(13, u"13", u"3");
}

TEST(UnitValueAccess, ScalarReadsAndWritesAllocateNothing) {
  const OwnedUnit unit = DWord(1);
  const TestSupport::AllocationWatch watch;
  for (unsigned int i = 0; i < 10; ++i) {
    Util::SetValue<unsigned int>(*unit, Util::GetValue<unsigned int>(*unit) + 1);
  }
  EXPECT_EQ(Util::GetValue<unsigned long long>(*unit, 5), 5u);
  EXPECT_EQ(watch.GetCount(), 0u);
  EXPECT_EQ(Util::GetValue<unsigned int>(*unit), 11u);
}

TEST(TypeMismatch, NamesBothKindsItsPlaceAndItsType) {
  const OwnedUnit word = Word(4);
  const Thrown read = Catch([&] { Util::GetValue<unsigned int>(*word); });
  EXPECT_EQ(read.code, 0xFA000Au);
  EXPECT_EQ(read.message,
            "POR: There is a mismatch in object internal structure. Expected object type is "
            "'dword', actual object type is 'word'.");
  EXPECT_EQ(read.file, "enterprise/common/por/types_mismatch");
  EXPECT_EQ(read.function, "MakeTypeMismatchError");
  EXPECT_EQ(read.line, 62u);
  EXPECT_TRUE(read.is_module_error);

  const Thrown write = Catch([&] { Util::SetValue<unsigned int>(*word, 1); });
  EXPECT_EQ(write.code, 0xFA000Au);
  EXPECT_EQ(write.message, "POR: Object internal structure mismatch.");
  EXPECT_EQ(write.function, "MakeTypeMismatchError");
  EXPECT_EQ(write.line, 50u);
  EXPECT_TRUE(write.is_module_error);

  auto processor = MakeProcessor<const View::Unit>([](const View::Unit&) {});
  const Thrown visit = Catch([&] { Util::ForEachArrayElement(*word, processor); });
  EXPECT_EQ(visit.code, 0xFA000Au);
  EXPECT_EQ(visit.message,
            "POR: There is a mismatch in object internal structure. Expected object type is "
            "'array', actual object type is 'word'.");
  EXPECT_EQ(visit.line, 62u);
  EXPECT_FALSE(visit.is_module_error);

  const Common::Error property = Util::Detail::MakePropertyTypeMismatchError("Size", 9, 17);
  EXPECT_EQ(property.GetCode(), 0xFA000Au);
  EXPECT_EQ(Utf8(property.GetMessage()),
            "POR: There is a mismatch in object property 'Size'. Expected property type is "
            "'sqword', actual property type is '17'.");
  EXPECT_STREQ(property.GetLineTag().function, "MakePropertyTypeMismatchError");
  EXPECT_EQ(property.GetLineTag().line, 69u);
}

// The texts of plain information.
std::vector<std::string> TakeInformation(TestSupport::TraceRecorder& traces) {
  std::vector<std::string> texts;
  for (const auto& line : traces.All()) {
    EXPECT_EQ(line.level, 2u);
    EXPECT_EQ(line.code, 0u);
    texts.push_back(line.text);
  }
  traces.Clear();
  return texts;
}

TEST(TypeMismatch, TracesTheStackForASinkOfTheInformationLevel) {
  TestSupport::TraceRecorder traces(2);
  Util::Detail::MakeTypeMismatchError();
  std::vector<std::string> texts = TakeInformation(traces);
  ASSERT_GE(texts.size(), 2u);
  ASSERT_LE(texts.size(), 33u);
  EXPECT_EQ(texts[0], "Stack logging from 'Por::Util::Detail::MakeTypeMismatchError'");
  for (std::size_t i = 1; i < texts.size(); ++i) {
    const std::string begin = "Stack frame " + std::to_string(i - 1) + ": '";
    EXPECT_EQ(texts[i].substr(0, begin.size()), begin);
    EXPECT_EQ(texts[i].back(), '\'');
  }
  Util::Detail::MakePropertyTypeMismatchError("a", 0, 1);
  texts = TakeInformation(traces);
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts[0], "Stack logging from 'Por::Util::Detail::MakePropertyTypeMismatchError'");
}

TEST(TypeMismatch, TracesNothingForASinkOfHigherLevels) {
  const TestSupport::TraceRecorder traces(3);
  Util::Detail::MakeTypeMismatchError(1, 2);
  EXPECT_TRUE(traces.All().empty());
}

TEST(UnitHelpers, AskForTraits) {
  const OwnedUnit unit = With(With(With(Array(), "Is", DWord(1)), "Is", DWord(2)), "Id", Nil());
  EXPECT_FALSE(Util::HasTraits(*Array()));
  EXPECT_TRUE(Util::HasTraits(*unit));
  EXPECT_FALSE(Util::HasTrait(*unit, "is"));
  EXPECT_TRUE(Util::HasTraitWithValue(*unit, "Is", *With(DWord(2), "x", Nil())))
      << "the second value, and without its traits";
  EXPECT_FALSE(Util::HasTraitWithValue(*unit, "Id", *DWord(2)));
  EXPECT_FALSE(Util::IsSearchable(*unit));
  EXPECT_TRUE(Util::IsSearchable(*With(Array(), "Searchable", Nil())));
  EXPECT_FALSE(Util::IsSearchable(*With(Text(u"a"), "Searchable", Nil())));

  EXPECT_TRUE(Util::UnitEqual(Util::GetUniqueTraitByName(*unit, "Id"), *Nil()));
  const Thrown none = Catch([&] { Util::GetUniqueTraitByName(*unit, "Key"); });
  EXPECT_EQ(none.code, 0xFA001Du);
  EXPECT_EQ(none.message, "POR: Trait 'Key' cannot be found.");
  EXPECT_TRUE(none.is_module_error);
  const Thrown two = Catch([&] { Util::GetUniqueTraitByName(*unit, "Is"); });
  EXPECT_EQ(two.code, 0xFA001Cu);
  EXPECT_EQ(two.message, "POR: Trait 'Is' is not unique.");
}

TEST(UnitHelpers, FindAndChangeProperties) {
  OwnedUnit unit = Composite("a", DWord(1), "b", DWord(2));
  const View::Unit& view = *unit;
  EXPECT_FALSE(Util::HasProperties(*Composite()));
  EXPECT_FALSE(Util::HasProperties(*Array(Nil())));
  EXPECT_TRUE(Util::HasProperties(view));
  EXPECT_EQ(Util::FindProperty(view, "c"), nullptr);
  Util::SetValue<unsigned int>(Util::GetProperty(*unit, "a").GetValue(), 5);
  EXPECT_EQ(Util::GetValue<unsigned int>(Util::GetProperty(view, "a").GetValue()), 5u);

  const Thrown missing = Catch([&] { Util::GetProperty(view, "c"); });
  EXPECT_EQ(missing.code, 0xFA000Du);
  EXPECT_EQ(missing.message, "POR: Property 'c' cannot be found.");
  EXPECT_EQ(missing.function, "CheckPropertyValidity");
  EXPECT_TRUE(missing.is_module_error);

  Util::AddPropertyCopy(*unit, "a", *unit, Factory());
  EXPECT_TRUE(Util::UnitEqual(
      view, *Composite("a", Composite("a", DWord(5), "b", DWord(2)), "b", DWord(2))));
  Util::DeleteProperty(*unit, "a");
  Util::DeleteProperty(*unit, "a");
  EXPECT_TRUE(Util::UnitEqual(view, *Composite("b", DWord(2))));

  OwnedUnit array = Array();
  const View::Unit& array_view = *array;
  for (const Thrown& thrown : {Catch([&] { Util::FindProperty(array_view, "a"); }),
                               Catch([&] { Util::FindProperty(*array, "a"); }),
                               Catch([&] { Util::AddProperty(*array, "a", Nil(), Factory()); }),
                               Catch([&] { Util::DeleteProperty(*array, "a"); })}) {
    EXPECT_EQ(thrown.message,
              "POR: There is a mismatch in object internal structure. Expected object type is "
              "'composite', actual object type is 'array'.");
    EXPECT_FALSE(thrown.is_module_error);
  }
}

TEST(UnitHelpers, ReachArrayElements) {
  OwnedUnit array = Array(With(DWord(1), "t", Nil()), DWord(2));
  const View::Unit& view = *array;
  EXPECT_EQ(Util::GetArraySize(view), 2u);
  EXPECT_EQ(Util::GetValue<unsigned int>(*Util::GetArrayElement(view, 1)), 2u);
  EXPECT_EQ(Util::GetArrayElement(*array, 1), Util::GetArrayElement(view, 1));
  EXPECT_EQ(Catch([&] { Util::GetArrayElement(view, 2); }).code, 0xFA000Fu);
  EXPECT_TRUE(Util::ArrayContains(view, *DWord(2)));
  EXPECT_FALSE(Util::ArrayContains(view, *DWord(1))) << "the element has a trait";
  EXPECT_TRUE(Util::ArrayContainsValue(view, *DWord(1)));
  EXPECT_FALSE(Util::ArrayContainsValue(view, *QWord(1)));

  OwnedUnit scalar = DWord(1);
  const View::Unit& scalar_view = *scalar;
  Util::AppendToArray(*scalar, Nil());
  EXPECT_EQ(Util::GetArraySize(scalar_view), 0u);
  EXPECT_EQ(Util::GetArrayElement(scalar_view, 7), nullptr);
  EXPECT_EQ(Util::GetArrayElement(*scalar, 7), nullptr);
  EXPECT_FALSE(Util::ArrayContains(scalar_view, *DWord(1)));
}

TEST(UnitHelpers, FindElementsInCompositesAndMaps) {
  const OwnedUnit map =
      Array(Composite("first", Text(u"a"), "second", DWord(1)), DWord(0),
            Composite("first", Text(u"b")), Composite("first", DWord(5), "second", DWord(5)),
            Composite("second", DWord(6)), Composite("first", Text(u"b"), "second", DWord(2)),
            Composite("first", Text(u"b"), "second", DWord(3)),
            Composite("first", Text(u"\u00e9"), "second", DWord(4)),
            Composite("first", Text(Common::String(u"z\0y", 3)), "second", DWord(7)));
  const auto find = [](Construction::Unit* unit, const Name& key) {
    const View::Unit* found = Util::FindElement(static_cast<const View::Unit*>(unit), key);
    EXPECT_EQ(Util::FindElement(unit, key), found);
    return found == nullptr ? 0 : Util::GetValue<unsigned int>(*found);
  };
  EXPECT_EQ(find(map.get(), "a"), 1u);
  EXPECT_EQ(find(map.get(), "b"), 2u) << "an entry without a second one is skipped";
  EXPECT_EQ(find(map.get(), "\xc3\xa9"), 4u) << "keys compare as UTF-8";
  EXPECT_EQ(find(map.get(), "z"), 7u) << "a text ends at its unit 0";
  EXPECT_EQ(find(map.get(), "c"), 0u);
  EXPECT_EQ(find(map.get(), "first"), 0u);

  const OwnedUnit composite = Composite("a", DWord(1), "first", DWord(2));
  EXPECT_EQ(find(composite.get(), "first"), 2u);
  EXPECT_EQ(find(composite.get(), "b"), 0u);
  EXPECT_EQ(find(DWord(1).get(), "a"), 0u);
  EXPECT_EQ(find(nullptr, "a"), 0u);
}

TEST(DataAccessors, TellTheFirstMissingName) {
  const OwnedUnit unit =
      Composite("map", Array(Composite("first", Text(u"k"), "second", Composite("x", DWord(1)))));
  const ConstDataAccessor root(*unit);
  EXPECT_EQ(Util::GetValue<unsigned int>(root["map"]["k"]["x"].Get()), 1u);
  EXPECT_FALSE(root["a"].IsValid());

  const Thrown first = Catch([&] { root["a"]["b"]["c"].Get(); });
  EXPECT_EQ(first.code, 0xFA0020u);
  EXPECT_EQ(first.message, "POR: Element 'a' cannot be found.");
  EXPECT_EQ(first.file, "enterprise/common/por/const_data_accessor");
  EXPECT_EQ(first.function, "EnsureUnitIsValid");
  EXPECT_EQ(first.line, 125u);
  EXPECT_TRUE(first.is_module_error);
  EXPECT_EQ(Catch([&] { root["map"]["k"]["y"]["z"].Get(); }).message,
            "POR: Element 'y' cannot be found.");

  DataAccessor changing;
  EXPECT_FALSE(changing["a"].IsValid());
  changing.Set(unit.get());
  Util::SetValue<unsigned int>(changing["map"]["k"]["x"].Get(), 2);
  EXPECT_EQ(Util::GetValue<unsigned int>(root["map"]["k"]["x"].Get()), 2u);
  const Thrown missing = Catch([&] { changing["a"]["b"].Get(); });
  EXPECT_EQ(missing.code, 0xFA0016u);
  EXPECT_EQ(missing.message, "POR: The array element cannot be found.");
  EXPECT_EQ(missing.file, "enterprise/common/por/data_accessor");
  EXPECT_EQ(missing.function, "EnsureUnitIsValid");
  EXPECT_EQ(missing.line, 70u);
  EXPECT_TRUE(missing.is_module_error);
}

}  // namespace
}  // namespace Por::Test
