#include "enterprise/serialize/record.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "enterprise/common/por/serialization/unit_serializer.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/serialize/packet_support.h"
#include "tests/support/trace_recorder.h"

namespace Serialization {

// A record with a version and traits that may hold others of its kind.
struct Sample {
  unsigned int id = 0;
  std::vector<Sample> parts;
};

template <>
struct RecordFormat<Sample> {
  static constexpr unsigned long long kVersion = 2;
  static TraitList GetTraits() { return Packets::MakeTraits({{"Is", "StringValue", "Sample"}}); }
  static void Write(Serializer& to, const Sample& value) {
    to.Write(MetaInfo("id"), value.id);
    const ElementWriter parts(to, MetaInfo("parts"));
    WriteSequence(to, value.parts);
  }
  static void Read(Deserializer& from, Sample& value) {
    from.Read(MetaInfo("id", true), value.id);
    const ElementReader parts(from, MetaInfo("parts"));
    ReadSequence(from, value.parts);
  }
};

namespace {

using namespace Packets;

TEST(MetaInfo, IsEqualByNameAndTraits) {
  MetaInfo left("a");
  MetaInfo right("a", true);
  right.version = right.category_version = right.category = 1;
  EXPECT_EQ(left, right);
  EXPECT_NE(left, MetaInfo("b"));
  const std::string name = "n";  // another place, the same text
  left.traits = MakeTraits({{"n", "t", "v"}});
  right.traits = MakeTraits({{name.c_str(), "t", "v"}});
  EXPECT_EQ(left, right);
  for (const MetaInfoTrait& other :
       {MetaInfoTrait{"n", "t", "w"}, {"n", "u", "v"}, {"m", "t", "v"}}) {
    right.traits = MakeTraits({other});
    EXPECT_NE(left, right);
  }
  right.traits = MakeTraits({{"n", "t", "v"}, {"n", "t", "v"}});
  EXPECT_NE(left, right);
  right.traits = left.traits;
  right.common_traits = MakeTraits({});
  EXPECT_NE(left, right);
}

TEST(Record, TellsItsVersionWhereItIsNew) {
  const Sample sample{1, {{2, {{3, {}}}}, {4, {}}}};
  const std::string traits =
      "<traits><trait  name=\"Is\" type=\"StringValue\">Sample</trait></traits>";
  const std::string none = "<parts><vector></vector></parts>" + traits;
  const std::string expected =
      "<s version=\"2\"><id>1</id><parts><vector>"
      "<item><id>2</id><parts><vector><item><id>3</id>" +
      none + "</item></vector></parts>" + traits + "</item><item><id>4</id>" + none +
      "</item></vector></parts>" + traits + "</s>";
  const std::string written = WriteElements([&](Serializer& to) {
    WriteRecord(to, "s", sample);
    EXPECT_EQ(to.GetSubjectVersion(), 0u);
  });
  EXPECT_EQ(written, expected);

  Sample read;
  const std::unique_ptr<Deserializer> from = OpenElements(written);
  {
    const ElementReader element(*from, MetaInfo("s"));
    EXPECT_EQ(from->GetSubjectVersion(), 2u);
    RecordFormat<Sample>::Read(*from, read);
  }
  EXPECT_EQ(WriteElements([&](Serializer& to) { WriteRecord(to, "s", read); }), expected);

  // Each item of a sequence outside has its own; in force already, none has.
  const std::vector<Sample> two{{5, {}}, {6, {}}};
  const std::string item5 = "<id>5</id>" + none + "</item>";
  const std::string item6 = "<id>6</id>" + none + "</item>";
  EXPECT_EQ(WriteElements([&](Serializer& to) { WriteSequence(to, two); }),
            "<vector><item version=\"2\">" + item5 + "<item version=\"2\">" + item6 + "</vector>");
  EXPECT_EQ(WriteElements([&](Serializer& to) {
              const VersionScope scope(to, 2);
              WriteSequence(to, two, MetaInfo("all"));
              // A type without version leaves the one in force.
              WriteRecord(to, "more", two);
            }),
            "<all><vector><item>" + item5 + "<item>" + item6 + "</vector></all>" +
                "<more><vector><item>" + item5 + "<item>" + item6 + "</vector></more>");
}

TEST(Record, ReadsSequencesUpToTheFirstOtherChild) {
  const auto read = [](const char* elements, std::vector<Sample>& values) {
    const std::unique_ptr<Deserializer> from = OpenElements(elements);
    const std::uint32_t code = CodeOf([&] { ReadSequence(*from, values); });
    std::string ids;
    for (const Sample& value : values) ids += std::to_string(value.id) + " ";
    return ids + std::to_string(code == 0 ? 0 : code & 0xFFFF) + " " + from->PeekMetaInfo().name;
  };
#define ITEM(id) "<item><id>" id "</id><parts><vector/></parts></item>"
  std::vector<Sample> values{{9, {}}};
  EXPECT_EQ(read("<vector></vector><x/>", values), "0 x");
  EXPECT_EQ(read("<vector>" ITEM("1") ITEM("2") "<y/>" ITEM("3") "</vector><x/>", values),
            "1 2 0 x");
  // No vector: nothing is touched.
  EXPECT_EQ(read("<x/>", values), "1 2 2 ");
  // The bad item stays at the end, and the elements around it are left.
  EXPECT_EQ(read("<vector>" ITEM("1") "<item><z/></item>" ITEM("3") "</vector><x/>", values),
            "1 0 2 x");
  EXPECT_EQ(read("<vector>" ITEM("1") "<item></item></vector><x/>", values), "1 0 2 x");
#undef ITEM
}

// The end of an element that doesn't fit is traced: neither it nor another failure gets lost.
TEST(Record, ScopesLetNothingOut) {
  const TestSupport::TraceRecorder trace;
  const std::unique_ptr<Deserializer> from = OpenElements("<a><b><c>1</c></b></a>");
  const std::uint32_t code = CodeOf([&] {
    const ElementReader a(*from, MetaInfo("a"));
    ElementReader b(*from, MetaInfo("b"));
    b.Disarm();
    throw Common::Error(0x77, Common::LineTag());
  });
  EXPECT_EQ(code, 0x77u);
  ASSERT_EQ(trace.Errors().size(), 1u);
  EXPECT_EQ(trace.Errors()[0].code, kInconsistentCode);
  EXPECT_EQ(from->PeekMetaInfo().name, "c");
  EXPECT_EQ(CodeOf([&] { ElementReader(*from, MetaInfo("x")); }), kInconsistentCode);
}

// Gives an object an interface from outside; the packets have none of their own.
template <class Interface, class Object>
void Register(Object& object, Interface& implementation) {
  struct Opened : Object {
    using Object::RegisterInterface;
  };
  void (Object::*const enter)(const char*, void*) = &Opened::RegisterInterface;
  (object.*enter)(Interface::kInterfaceName, &implementation);
}

class OwnForms final : public ContainerAwareSerializer,
                       public Por::Serialization::PorAwareSerializer,
                       public Por::Serialization::PorAwareDeserializer {
 public:
  explicit OwnForms(Serializer& to) : to_(to) {}

  void WriteContainer(const MetaInfo& meta, ContainerIterator& iterator) override {
    const ElementWriter element(to_, MetaInfo("own_" + meta.name));
    for (; !iterator.IsAtEnd(); iterator.Next()) iterator.WriteCurrent(to_);
  }
  void WriteUnit(const MetaInfo& meta, const Por::SharedUnit& unit) override {
    to_.Write(meta, unit != nullptr);
    last = unit;
  }
  void ReadUnit(const MetaInfo&, Por::SharedUnit& unit) override { unit = last; }

  Por::SharedUnit last;

 private:
  Serializer& to_;
};

TEST(Record, LeavesContainersAndUnitsToWhomHasAFormForThem) {
  const Por::SharedUnit unit = Por::Test::DWord(5);
  const std::string written = WriteElements([&](Serializer& to) {
    OwnForms forms(to);
    Register<ContainerAwareSerializer>(to, forms);
    Register<Por::Serialization::PorAwareSerializer>(to, forms);
    WriteSequence(to, std::vector<Por::SharedUnit>{nullptr, unit}, MetaInfo("all"));
    EXPECT_EQ(forms.last, unit);
    const VersionScope version(to, 2);
    WriteSequence(to, std::vector<Sample>{{1, {{2, {}}}}});
  });
  const std::string traits =
      "<traits><trait  name=\"Is\" type=\"StringValue\">Sample</trait></traits>";
  EXPECT_EQ(written,
            "<own_all><item>0</item><item>1</item></own_all><own_><item><id>1</id>"
            "<parts><own_><item><id>2</id><parts><own_></own_></parts>" +
                traits + "</item></own_></parts>" + traits + "</item></own_>");

  const std::unique_ptr<Serializer> to = CreateXMLPacketSerializer(0);
  OwnForms forms(*to);
  forms.last = unit;
  const std::unique_ptr<Deserializer> from = OpenElements("");
  Register<Por::Serialization::PorAwareDeserializer>(*from, forms);
  Por::SharedUnit read;
  Por::Serialization::ReadUnit(*from, read);
  EXPECT_EQ(read, unit);
}

TEST(UnitSerializer, WritesTheseElements) {
  // A composite with one property a of value 5, whose stream is 18 bytes.
  const Por::SharedUnit unit = Por::Test::Composite("a", Por::Test::DWord(5));
  const std::string expected = "<is_empty>0</is_empty><value>VUNQDQIAAABhAFUGBQAAAEVF</value>";
  EXPECT_EQ(WriteElements([&](Serializer& to) { Por::Serialization::WriteUnit(to, unit); }),
            expected);
  EXPECT_EQ(WriteElements([](Serializer& to) { Por::Serialization::WriteUnit(to, nullptr); }),
            "<is_empty>1</is_empty>");

  const std::vector<Por::SharedUnit> units{unit, nullptr};
  const std::string sequence = WriteElements([&](Serializer& to) { WriteSequence(to, units); });
  EXPECT_EQ(sequence,
            "<vector><item>" + expected + "</item><item><is_empty>1</is_empty></item></vector>");
  std::vector<Por::SharedUnit> read;
  ReadSequence(*OpenElements(sequence), read);
  ASSERT_EQ(read.size(), 2u);
  ASSERT_NE(read[0], nullptr);
  EXPECT_TRUE(Por::Util::UnitEqual(*read[0], *unit));
  EXPECT_EQ(read[1], nullptr);
}

TEST(UnitSerializer, BadUnitsAreNullOrFail) {
  const Por::SharedUnit old = Por::Test::Nil();
  const struct {
    const char* elements;
    std::uint32_t code;  // and the old unit stays; 0: null
  } rows[] = {
      {"<is_empty>1</is_empty><value>VQBF</value>", 0},
      {"<is_empty>7</is_empty>", 0},
      {"<is_empty>0</is_empty><value></value>", 0},
      // A unit that isn't ended, an end without a unit.
      {"<is_empty>0</is_empty><value>VQA=</value>", 0},
      {"<is_empty></is_empty><value>RQ==</value>", 0},
      {"", kInconsistentCode},
      {"<is_empty>0</is_empty>", kInconsistentCode},
      {"<is_empty>0</is_empty><value>*</value>", kNoDataCode},
      {"<is_empty>0</is_empty><value>/w==</value>", 0xFA0021},
  };
  for (const auto& row : rows) {
    Por::SharedUnit unit = old;
    const std::unique_ptr<Deserializer> from = OpenElements(row.elements);
    EXPECT_EQ(CodeOf([&] { Por::Serialization::ReadUnit(*from, unit); }), row.code) << row.elements;
    EXPECT_EQ(unit, row.code == 0 ? nullptr : old) << row.elements;
  }
}

}  // namespace
}  // namespace Serialization
