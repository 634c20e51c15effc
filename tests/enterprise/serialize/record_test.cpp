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
  for (const std::vector<MetaInfoTrait>& other : {std::vector<MetaInfoTrait>{},
                                                  {{"n", "t", "w"}},
                                                  {{"n", "u", "v"}},
                                                  {{"m", "t", "v"}},
                                                  {{"n", "t", "v"}, {"n", "t", "v"}},
                                                  {{name.c_str(), "t", "v"}}}) {
    EXPECT_NE(left, right);
    right.traits = MakeTraits(other);
  }
  EXPECT_EQ(left, right);
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

TEST(Record, ScopesLetNothingOut) {
  const TestSupport::TraceRecorder trace;
  const std::unique_ptr<Deserializer> from = OpenElements("<a><b><c>1</c></b></a>");
  {
    const ElementReader a(*from, MetaInfo("a"));
    ElementReader b(*from, MetaInfo("b"));
    b.Disarm();
  }
  // The end of a didn't fit: b was still open.
  ASSERT_EQ(trace.Errors().size(), 1u);
  EXPECT_EQ(trace.Errors()[0].code, kInconsistentCode);
  EXPECT_EQ(from->PeekMetaInfo().name, "c");
  EXPECT_EQ(CodeOf([&] { ElementReader(*from, MetaInfo("x")); }), kInconsistentCode);
}

TEST(Record, ScopesLetAnotherFailurePass) {
  const TestSupport::TraceRecorder trace;
  const std::unique_ptr<Deserializer> from = OpenElements("<a><b></b></a>");
  const std::uint32_t code = CodeOf([&] {
    const ElementReader a(*from, MetaInfo("a"));
    from->BeginElement(MetaInfo("b"));
    throw Common::Error(0x77, Common::LineTag());
  });
  EXPECT_EQ(code, 0x77u);
  ASSERT_EQ(trace.Errors().size(), 1u);
  EXPECT_EQ(trace.Errors()[0].code, kInconsistentCode);
}

// A writer and a reader that have forms of their own for containers and units and write down what
// they are asked for.

template <class Base>
class LoggedCoder : public Base {
 public:
  std::string log;

  void BeginElement(const MetaInfo& meta) override { log += "(" + meta.name + " "; }
  void EndElement(const MetaInfo& meta) override { log += ")" + meta.name + " "; }
  unsigned long long GetSubjectVersion() override { return 0; }

 protected:
  void Log(const MetaInfo& meta) { log += meta.name + " "; }
};

class AwareSerializer final : public LoggedCoder<Serializer>,
                              public ContainerAwareSerializer,
                              public Por::Serialization::PorAwareSerializer {
 public:
  AwareSerializer() {
    RegisterInterface("PN13Serialization24ContainerAwareSerializerE",
                      static_cast<ContainerAwareSerializer*>(this));
    RegisterInterface("PN3Por13Serialization18PorAwareSerializerE",
                      static_cast<Por::Serialization::PorAwareSerializer*>(this));
  }

  void WriteContainer(const MetaInfo& meta, ContainerIterator& iterator) override {
    log += "[" + meta.name + " ";
    for (; !iterator.IsAtEnd(); iterator.Next()) iterator.WriteCurrent(*this);
    log += "] ";
  }
  void WriteUnit(const MetaInfo& meta, const Por::SharedUnit& unit) override {
    log += "unit'" + meta.name + "' ";
    units.push_back(unit);
  }

  void Write(const MetaInfo& meta, bool) override { Log(meta); }
  void Write(const MetaInfo& meta, unsigned char) override { Log(meta); }
  void Write(const MetaInfo& meta, const Common::Guid&) override { Log(meta); }
  void Write(const MetaInfo& meta, const Common::Error&) override { Log(meta); }
  void Write(const MetaInfo& meta, const Common::String&) override { Log(meta); }
  void Write(const MetaInfo& meta, unsigned int) override { Log(meta); }
  void Write(const MetaInfo& meta, double) override { Log(meta); }
  void Write(const MetaInfo& meta, unsigned long long) override { Log(meta); }
  void Write(const MetaInfo& meta, int) override { Log(meta); }
  void Write(const MetaInfo& meta, long long) override { Log(meta); }
  void Write(const MetaInfo& meta, const std::string&) override { Log(meta); }
  void Write(const MetaInfo& meta, short) override { Log(meta); }
  void Write(const MetaInfo& meta, unsigned short) override { Log(meta); }
  void Write(const MetaInfo& meta, const std::vector<unsigned char>&) override { Log(meta); }
  void Write(const MetaInfo& meta, const CountedBytes&) override { Log(meta); }
  void Finish(std::vector<unsigned char>&) override {}
  CountedBytes Finish() override { return {}; }
  MetaInfo GetCurrentMetaInfo() override { return MetaInfo(); }
  void SetSubjectVersion(unsigned long long) override {}

  std::vector<Por::SharedUnit> units;
};

class AwareDeserializer final : public LoggedCoder<Deserializer>,
                                public Por::Serialization::PorAwareDeserializer {
 public:
  explicit AwareDeserializer(Por::SharedUnit unit) : unit_(std::move(unit)) {
    RegisterInterface("PN3Por13Serialization20PorAwareDeserializerE",
                      static_cast<Por::Serialization::PorAwareDeserializer*>(this));
  }

  void ReadUnit(const MetaInfo& meta, Por::SharedUnit& unit) override {
    log += "unit'" + meta.name + "' ";
    unit = unit_;
  }

  bool IsAtEnd() override { return false; }
  void Read(const MetaInfo& meta, bool&) override { Log(meta); }
  void Read(const MetaInfo& meta, unsigned char&) override { Log(meta); }
  void Read(const MetaInfo& meta, Common::Guid&) override { Log(meta); }
  void Read(const MetaInfo& meta, Common::Error&) override { Log(meta); }
  void Read(const MetaInfo& meta, Common::String&) override { Log(meta); }
  void Read(const MetaInfo& meta, unsigned int&) override { Log(meta); }
  void Read(const MetaInfo& meta, double&) override { Log(meta); }
  void Read(const MetaInfo& meta, unsigned long long&) override { Log(meta); }
  void Read(const MetaInfo& meta, int&) override { Log(meta); }
  void Read(const MetaInfo& meta, long long&) override { Log(meta); }
  void Read(const MetaInfo& meta, std::string&) override { Log(meta); }
  void Read(const MetaInfo& meta, short&) override { Log(meta); }
  void Read(const MetaInfo& meta, unsigned short&) override { Log(meta); }
  void Read(const MetaInfo& meta, std::vector<unsigned char>&) override { Log(meta); }
  void Read(const MetaInfo& meta, CountedBytes&) override { Log(meta); }
  MetaInfo PeekMetaInfo() override { return MetaInfo(); }

 private:
  const Por::SharedUnit unit_;
};

TEST(Record, LeavesContainersAndUnitsToWhomHasAFormForThem) {
  const Por::SharedUnit unit = Por::Test::DWord(5);
  AwareSerializer to;
  WriteSequence(to, std::vector<Por::SharedUnit>{unit, nullptr}, MetaInfo("all"));
  EXPECT_EQ(to.log, "[all (item unit'' )item (item unit'' )item ] ");
  EXPECT_EQ(to.units, (std::vector<Por::SharedUnit>{unit, nullptr}));
  to.log.clear();
  WriteSequence(to, std::vector<Sample>{{1, {{2, {}}}}});
  EXPECT_EQ(to.log, "[ (item id (parts [ (item id (parts [ ] )parts )item ] )parts )item ] ");

  AwareDeserializer from(unit);
  Por::SharedUnit read;
  Por::Serialization::ReadUnit(from, read);
  EXPECT_EQ(read, unit);
  EXPECT_EQ(from.log, "unit'' ");
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
