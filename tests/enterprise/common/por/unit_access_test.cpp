#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/common/unix/trace.h"
#include "enterprise/common/por/const_data_accessor.h"
#include "enterprise/common/por/data_accessor.h"
#include "enterprise/common/por/type_mismatch_throwing_visitor.h"
#include "enterprise/common/por/types_mismatch.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"
#include "tests/support/trace_recorder.h"

namespace Por::Test {
namespace {

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
  ExpectOnlyKind<signed char>(3, 8, -3);
  ExpectOnlyKind<unsigned int>(6, 5, 3);
  ExpectOnlyKind<long long>(9, 2, -3);
  ExpectOnlyKind<double>(10, 1, 3);
  ExpectOnlyKind<Common::Guid>(12, {}, {{3}});
  ExpectOnlyKind<Common::String>(13, u"", u"3");
}

TEST(TypeMismatch, NamesBothKindsItsPlaceAndItsType) {
  const OwnedUnit word = Word(4);
  const Thrown read = Catch([&] { Util::GetValue<unsigned int>(*word); });
  EXPECT_EQ(read.error,
            "ModuleError fa000a: POR: There is a mismatch in object internal structure. Expected "
            "object type is 'dword', actual object type is 'word'.");
  EXPECT_EQ(read.place, "enterprise/common/por/types_mismatch:62 MakeTypeMismatchError");

  const Thrown write = Catch([&] { Util::SetValue<unsigned int>(*word, 1); });
  EXPECT_EQ(write.error, "ModuleError fa000a: POR: Object internal structure mismatch.");
  EXPECT_EQ(write.place, "enterprise/common/por/types_mismatch:50 MakeTypeMismatchError");

  auto processor = MakeProcessor<const View::Unit>([](const View::Unit&) {});
  const Thrown visit = Catch([&] { Util::ForEachArrayElement(*word, processor); });
  EXPECT_EQ(visit.error,
            "Error fa000a: POR: There is a mismatch in object internal structure. Expected object "
            "type is 'array', actual object type is 'word'.");
  EXPECT_EQ(visit.place, read.place);
  EXPECT_TRUE(read.is_traced && write.is_traced && visit.is_traced);
}

TEST(TypeMismatch, TracesTheStackForASinkOfTheInformationLevel) {
  const auto trace = [](unsigned int level, auto make) {
    const TestSupport::TraceRecorder traces(level);
    make();
    return traces.All();
  };
  const auto make = [] { Util::Detail::MakeTypeMismatchError(); };
  const auto make_property = [] { Util::Detail::MakePropertyTypeMismatchError("a", 0, 1); };
  const auto lines = trace(2, make);
  ASSERT_GE(lines.size(), 2u);
  ASSERT_LE(lines.size(), 33u);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].level, 2u);
    EXPECT_EQ(lines[i].code, 0u);
    std::string begin = "Stack logging from 'Por::Util::Detail::MakeTypeMismatchError'";
    if (i != 0) begin = "Stack frame " + std::to_string(i - 1) + ": '";
    EXPECT_TRUE(lines[i].text.starts_with(begin)) << lines[i].text;
    EXPECT_EQ(lines[i].text.back(), '\'');
  }
  EXPECT_EQ(trace(2, make_property).at(0).text,
            "Stack logging from 'Por::Util::Detail::MakePropertyTypeMismatchError'");
  EXPECT_TRUE(trace(3, make).empty());
}

TEST(UnitHelpers, FindTheOneTraitOfAName) {
  const OwnedUnit unit = With(With(With(Array(), "Is", DWord(1)), "Is", DWord(2)), "Id", Nil());
  EXPECT_FALSE(Util::HasTrait(*unit, "is"));
  EXPECT_EQ(Util::GetValueTypeIndex(Util::GetUniqueTraitByName(*unit, "Id")), kNilIndex);
  EXPECT_EQ(Catch([&] { Util::GetUniqueTraitByName(*unit, "Key"); }).error,
            "ModuleError fa001d: POR: Trait 'Key' cannot be found.");
  EXPECT_EQ(Catch([&] { Util::GetUniqueTraitByName(*unit, "Is"); }).error,
            "ModuleError fa001c: POR: Trait 'Is' is not unique.");
}

TEST(UnitHelpers, FindAndChangeProperties) {
  OwnedUnit unit = Composite("a", DWord(1), "b", DWord(2));
  const View::Unit& view = *unit;
  EXPECT_FALSE(Util::HasProperties(*Composite()));
  EXPECT_TRUE(Util::HasProperties(view));
  EXPECT_EQ(Util::FindProperty(view, "c"), nullptr);
  Util::SetValue<unsigned int>(Util::GetProperty(*unit, "a").GetValue(), 5);
  EXPECT_EQ(Util::GetValue<unsigned int>(Util::GetProperty(view, "a").GetValue()), 5u);

  const Thrown missing = Catch([&] { Util::GetProperty(view, "c"); });
  EXPECT_EQ(missing.error, "ModuleError fa000d: POR: Property 'c' cannot be found.");
  EXPECT_NE(missing.place.find(" CheckPropertyValidity"), std::string::npos);

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
    EXPECT_EQ(thrown.error,
              "Error fa000a: POR: There is a mismatch in object internal structure. Expected "
              "object type is 'composite', actual object type is 'array'.");
  }
}

TEST(UnitHelpers, ReachArrayElements) {
  OwnedUnit array = Array(DWord(1), DWord(2));
  const View::Unit& view = *array;
  EXPECT_EQ(Util::GetArraySize(view), 2u);
  EXPECT_EQ(Util::GetValue<unsigned int>(*Util::GetArrayElement(view, 1)), 2u);
  EXPECT_EQ(Util::GetArrayElement(*array, 1), Util::GetArrayElement(view, 1));
  EXPECT_THROW(Util::GetArrayElement(view, 2), ModuleError);

  OwnedUnit scalar = DWord(1);
  const View::Unit& scalar_view = *scalar;
  Util::AppendToArray(*scalar, Nil());
  EXPECT_EQ(Util::GetArraySize(scalar_view), 0u);
  EXPECT_EQ(Util::GetArrayElement(scalar_view, 7), nullptr);
  EXPECT_EQ(Util::GetArrayElement(*scalar, 7), nullptr);
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
  EXPECT_EQ(first.error, "ModuleError fa0020: POR: Element 'a' cannot be found.");
  EXPECT_EQ(first.place, "enterprise/common/por/const_data_accessor:125 EnsureUnitIsValid");
  EXPECT_EQ(Catch([&] { root["map"]["k"]["y"]["z"].Get(); }).error,
            "ModuleError fa0020: POR: Element 'y' cannot be found.");

  DataAccessor changing;
  EXPECT_FALSE(changing["a"].IsValid());
  changing.Set(unit.get());
  Util::SetValue<unsigned int>(changing["map"]["k"]["x"].Get(), 2);
  EXPECT_EQ(Util::GetValue<unsigned int>(root["map"]["k"]["x"].Get()), 2u);
  const Thrown missing = Catch([&] { changing["a"]["b"].Get(); });
  EXPECT_EQ(missing.error, "ModuleError fa0016: POR: The array element cannot be found.");
  EXPECT_EQ(missing.place, "enterprise/common/por/data_accessor:70 EnsureUnitIsValid");
}

}  // namespace
}  // namespace Por::Test
