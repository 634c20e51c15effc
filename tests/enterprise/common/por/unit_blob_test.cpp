#include "enterprise/common/por/unit_blob.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "enterprise/common/por/assign_unit.h"
#include "enterprise/common/por/binary_data.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_accumulator.h"
#include "enterprise/common/por/unit_digest.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "enterprise/common/por/visitor.h"
#include "enterprise/common/por/walk_unit.h"
#include "tests/enterprise/common/por/stream_support.h"
#include "tests/support/allocation_watch.h"

namespace Por::Util {
namespace {

using Streams::Bytes;
using Streams::CodeOf;
using Streams::FromHex;
using Streams::Make;
using Streams::Read;
using Streams::ToHex;
using Streams::Write;

Common::Guid SampleGuid() {
  Common::Guid guid;
  guid.SetFirst(0x6B29FC40);
  guid.SetSecond(0xCA47);
  guid.SetThird(0x1067);
  const unsigned char tail[] = {0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA};
  std::copy(std::begin(tail), std::end(tail), guid.bytes.begin() + 8);
  return guid;
}

struct Case {
  const char* name;
  std::function<void(const UnitConstructor&)> calls;
  const char* hex;
};

const Case kCases[] = {
    {"Nil", [](const UnitConstructor& u) { u.Nil().End(); }, "55 00 45"},
    {"True", [](const UnitConstructor& u) { u.Boolean(true).End(); }, "55 01 01 45"},
    {"Byte", [](const UnitConstructor& u) { u.Byte(0xAB).End(); }, "55 02 AB 45"},
    {"SByte", [](const UnitConstructor& u) { u.SByte(-2).End(); }, "55 03 FE 45"},
    {"Word", [](const UnitConstructor& u) { u.Word(0x1234).End(); }, "55 04 3412 45"},
    {"SWord", [](const UnitConstructor& u) { u.SWord(-2).End(); }, "55 05 FEFF 45"},
    {"DWord", [](const UnitConstructor& u) { u.DWord(0x01020304).End(); }, "55 06 04030201 45"},
    {"SDWord", [](const UnitConstructor& u) { u.SDWord(-2).End(); }, "55 07 FEFFFFFF 45"},
    {"QWord", [](const UnitConstructor& u) { u.QWord(0x0102030405060708).End(); },
     "55 08 0807060504030201 45"},
    {"SQWord", [](const UnitConstructor& u) { u.SQWord(-2).End(); }, "55 09 FEFFFFFFFFFFFFFF 45"},
    {"Double", [](const UnitConstructor& u) { u.Double(-1.5).End(); }, "55 0A 000000000000F8BF 45"},
    {"Blob",
     [](const UnitConstructor& u) {
       u.Blob({1, 0, 255}).End();
     },
     "55 0B 03000000 0100FF 45"},
    {"EmptyBlob", [](const UnitConstructor& u) { u.Blob({}).End(); }, "55 0B 00000000 45"},
    {"Guid", [](const UnitConstructor& u) { u.Guid(SampleGuid()).End(); },
     "55 0C 40FC296B 47CA 6710 B31D00DD010662DA 45"},
    // A code unit 0 is text like any other.
    {"String", [](const UnitConstructor& u) { u.String(Common::String(u"a\0\u20AC", 3)).End(); },
     "55 0D 06000000 6100 0000 AC20 45"},
    {"EmptyString", [](const UnitConstructor& u) { u.String({}).End(); }, "55 0D 00000000 45"},
    {"NoError", [](const UnitConstructor& u) { u.Error(Common::Error()).End(); },
     "55 0E 01000000 01 45"},
    {"Error",
     [](const UnitConstructor& u) { u.Error(Common::Error(0x12, "x", Common::LineTag())).End(); },
     "55 0E 2E000000 01 12000000 0000000000000000 7800"
     "246D6F64756C6500 41 6F626A70726F62655F6C786136345F343332363700 00 45"},
    {"EmptyArray", [](const UnitConstructor& u) { u.Array().End(); }, "55 41 45"},
    {"Array", [](const UnitConstructor& u) { u.Array().Byte(1).End().Nil().End().End(); },
     "55 41 55 02 01 45 55 00 45 45"},
    {"EmptyComposite", [](const UnitConstructor& u) { u.Composite().End(); }, "55 43 45"},
    {"Property", [](const UnitConstructor& u) { u.Composite().Property("a").DWord(5).End().End(); },
     "55 43 50 0D 02000000 6100 55 06 05000000 45 45"},
    // Members in name order, traits behind them.
    {"Order",
     [](const UnitConstructor& u) {
       u.Composite().Trait("t").Nil().End();
       u.Property("b").Nil().End().Property("a").Nil().End().End();
     },
     "55 43 50 0D 02000000 6100 55 00 45 50 0D 02000000 6200 55 00 45"
     "54 0D 02000000 7400 55 00 45 45"},
    {"Trait", [](const UnitConstructor& u) { u.Byte(7).Trait("k").Boolean(true).End().End(); },
     "55 02 07 54 0D 02000000 6B00 55 01 01 45 45"},
    {"NameBeyondAscii",
     [](const UnitConstructor& u) {
       u.Composite().Property(Name(Common::String(u"\u20ACx"))).Nil().End().End();
     },
     "55 43 50 0D 04000000 AC20 7800 55 00 45 45"},
    // A byte that is no UTF-8 is written as U+FFFD.
    {"NameOfNoText",
     [](const UnitConstructor& u) {
       u.Composite().Property(Name::FromUtf8("a\xFF")).Nil().End().End();
     },
     "55 43 50 0D 04000000 6100 FDFF 55 00 45 45"},
    {"EmptyName", [](const UnitConstructor& u) { u.Composite().Property("").Nil().End().End(); },
     "55 43 50 0D 00000000 55 00 45 45"},
};

TEST(UnitBlob, HasTheseBytes) {
  for (const Case& item : kCases) {
    SCOPED_TRACE(item.name);
    const OwnedUnit unit = Make(item.calls);
    ASSERT_NE(unit, nullptr);
    const Bytes expected = FromHex(item.hex);
    EXPECT_EQ(ToHex(Write(*unit)), ToHex(expected));

    // The walk, item by item, gives the same.
    Bytes walked;
    BlobWriter writer(walked);
    BinaryDataProvider provider(writer);
    WalkUnit(*unit, provider);
    EXPECT_EQ(ToHex(walked), ToHex(expected));

    const OwnedUnit read = Read(expected);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(ToHex(Write(*read)), ToHex(expected));
    EXPECT_EQ(GetValueTypeIndex(*read), GetValueTypeIndex(*unit));
  }
}

// Payloads around and above the size of any buffer on the way.
TEST(UnitBlob, LargePayloadsAreWrittenAsTheWalkWritesThem) {
  for (const std::size_t size : {15u, 16u, 500u, 512u, 1024u, 4096u, 5000u, 70000u}) {
    const OwnedUnit unit = Make([&](const UnitConstructor& u) {
      u.Composite().Property(Name::FromUtf8(std::string(size, 'n'))).Blob(Bytes(size, 3)).End();
      u.Property(Name(Common::String(size, u'\u20AC'))).String(Common::String(size, u'x'));
      u.End().Property("z").Nil().End().End();
    });
    Bytes walked;
    BlobWriter writer(walked);
    BinaryDataProvider provider(writer);
    WalkUnit(*unit, provider);
    EXPECT_TRUE(Write(*unit) == walked) << size;
    EXPECT_TRUE(UnitEqual(*unit, *Read(walked))) << size;
  }
}

// What the reader lets through: stream, and the stream of the unit that comes of it, "" for none.
TEST(UnitBlob, ReadsMoreThanTheWriterWrites) {
  constexpr struct {
    const char* stream;
    const char* unit;
    const char* reason;
  } kTolerated[] = {
      {"", "", "no data"},
      {"45", "", "an end of nothing"},
      {"55 00", "", "never ended"},
      {"55", "", "nothing but a beginning"},
      {"00 45", "55 00 45", "beginnings mean nothing"},
      {"55 55 55 43 45", "55 43 45", "beginnings mean nothing"},
      {"55 01 7F 45", "55 01 01 45", "true is any bit"},
      {"55 02 01 45 55 02 02 45", "55 02 02 45", "the last root wins"},
      {"55 02 01 45 45", "", "the last root is an empty one"},
      {"55 02 01 02 02 45", "55 02 01 45", "a second value of a root is dropped"},
      {"43 50 FF 02000000 6100 55 02 05 45 45", "55 43 50 0D 02000000 6100 55 02 05 45 45",
       "the tag of a name is not looked at"},
      {"43 50 0D 02000000 6100 02 05 45 45", "55 43 50 0D 02000000 6100 55 02 05 45 45",
       "the item behind a name may be the value"},
      {"43 50 0D 02000000 6100 43 02 05 45 45", "55 43 50 0D 02000000 6100 55 02 05 45 45",
       "or anything at all"},
      {"43 50 0D 06000000 6100 0000 6200 55 02 05 45 45",
       "55 43 50 0D 02000000 6100 55 02 05 45 45", "a unit 0 ends a name"},
      {"55 00 02 07 45", "55 02 07 45", "a value takes the place of nil"},
  };
  for (const auto& item : kTolerated) {
    const OwnedUnit unit = Read(FromHex(item.stream));
    EXPECT_EQ(unit == nullptr ? "" : ToHex(Write(*unit)), ToHex(FromHex(item.unit)))
        << item.stream << ": " << item.reason;
  }
}

TEST(UnitBlob, RefusesCorruptedDataWithItsPositionAndDump) {
  constexpr struct {
    const char* stream;
    const char* position;
    const char* reason;
  } kCorrupted[] = {
      {"0F", "1", "no such tag"},
      {"55 FF 45", "2", "no such tag"},
      {"55 01", "2", "no boolean"},
      {"55 08 01020304050607", "2", "seven bytes of eight"},
      {"55 0B 0200", "2", "half a count"},
      {"55 0B 04000000 010203", "2", "three bytes of four"},
      {"55 0D FFFFFFFF 6100", "2", "a count of everything"},
      {"55 0D 03000000 610062 45", "2", "half a code unit"},
      {"55 0E 05000000 01", "2", "an error cut short"},
      {"55 43 50", "3", "no name"},
      {"55 43 50 0D 0200", "3", "half the count of a name"},
      {"55 43 54 0D 03000000 610062 55 00 45 45", "3", "half a code unit in a name"},
      {"55 43 50 0D 02000000 6100", "10", "nothing behind a name"},
      {"55 43 50 0D 02000000 6100 06 0000", "11", "a value cut short behind a name"},
  };
  for (const auto& item : kCorrupted) {
    const Bytes bytes = FromHex(item.stream);
    try {
      Read(bytes);
      ADD_FAILURE() << item.stream << ": " << item.reason;
    } catch (const ModuleError& error) {
      EXPECT_EQ(error.GetCode(), 0xFA0021u) << item.reason;
      const std::string text = "POR: Unit object '" + ToHex(bytes) +
                               "' is corrupted at position '" + item.position + "'.";
      EXPECT_EQ(error.GetMessage(), Common::String(text.begin(), text.end())) << item.reason;
      EXPECT_STREQ(error.GetLineTag().function, "Follow");
    }
  }
}

// Items in the wrong place fail as the calls that they stand for.
TEST(UnitBlob, PassesOnWhatTheBuilderRaises) {
  EXPECT_EQ(CodeOf([] { Read(FromHex("55 41 50 0D 00000000 55 00 45 45")); }), 0xFA000Au);
  EXPECT_EQ(CodeOf([] { Read(FromHex("50 0D 00000000 55 00 45 45")); }), 0xFA000Bu);
  EXPECT_EQ(CodeOf([] { Read(FromHex("43 50 0D 00000000 55 45 45")); }), 0xFA000Bu);
  EXPECT_EQ(
      CodeOf([] { Read(FromHex("43 50 0D 00000000 55 0201 45 50 0D 00000000 55 040100 45 45")); }),
      0xFA0011u);
}

// The text of the failure needs memory; without it there is still an error.
TEST(UnitBlob, RefusesCorruptedDataWithoutMemory) {
  class NoWalker : public UnitWalker {
#define POR_EVENT(index, Word, Value, Argument) \
  void On##Word(Argument) override {}
    POR_SCALAR_KINDS(POR_EVENT)
#undef POR_EVENT
#define POR_EVENT(index, Word, Value, Argument) \
  void On##Word(const Argument&) override {}
    POR_COMPLEX_KINDS(POR_EVENT)
#undef POR_EVENT
    void OnUnitBegin() override {}
    void OnUnitEnd() override {}
    void OnProperty(const Name&) override {}
    void OnTrait(const Name&) override {}
    void OnNil() override {}
    void OnArray() override {}
    void OnComposite() override {}
  } walker;
  const Bytes bytes(100, 0x0F);
  EXPECT_EQ(CodeOf([&] {
              const TestSupport::AllocationWatch watch(0, 1);
              FollowUnitBlob(bytes.data(), bytes.size(), walker);
            }),
            Common::kOutOfMemoryCode);
}

// A piece of memory or two hold the tree of more than a hundred nodes; only long texts and blobs
// have their own. Digests take none.
TEST(UnitBlob, WellFormedStreamsTakeHardlyAnyAllocations) {
  const Bytes bytes = Write(*Make([](const UnitConstructor& u) {
    u.Composite().Trait("Is").String(u"Machine").End().Property("List").Array();
    for (int i = 0; i < 30; ++i) u.Composite().Property("Id").Guid(SampleGuid()).End().End();
    u.End().Property("TheNameOfAPropertyIsNoMatter").Double(1).End().End();
  }));
  Read(bytes);
  const TestSupport::AllocationWatch watch;
  const OwnedUnit unit = Read(bytes);
  const unsigned long long count = watch.GetCount();
  EXPECT_LE(count, 2u);
  ComputeUnitDigest(*unit);
  EXPECT_EQ(watch.GetCount(), count);
}

OwnedUnit MakeRichUnit() {
  return Make([](const UnitConstructor& u) {
    u.Composite().Trait("Is").String(u"Machine").End().Trait("Is").String(u"Host").End();
    u.Property("Blob").Blob({1, 2, 3}).End().Property("Double").Double(0.25).End();
    u.Property("Error").Error(Common::Error(0x40001, "bad", Common::LineTag())).End();
    u.Property("Guid").Guid(SampleGuid()).Trait("PrimaryKey").Nil().End().End();
    u.Property("List").Array().Word(1).End().Composite().Property("x").Boolean(true).End().End();
    u.Array().End().End();
    u.Property("Name").String(u"caf\u00E9").End();
    u.Property("Numbers").Array().SByte(-1).End().SWord(-2).End().SDWord(-3).End();
    u.SQWord(-4).End().QWord(5).End().End();
    u.End();
  });
}

TEST(UnitBlob, LargeTreesTakeFewPiecesOfMemory) {
  const Bytes bytes = Write(*Make([](const UnitConstructor& u) {
    u.Composite().Property("List").Array();
    for (unsigned int i = 0; i < 60000; ++i) u.QWord(i).End();
    u.End().End();
  }));
  const TestSupport::AllocationWatch watch;
  const OwnedUnit unit = Read(bytes);
  EXPECT_LE(watch.GetCount(), 20u);
}

// Every lack of memory while reading ends in std::bad_alloc or an empty error, and loses nothing.
TEST(UnitBlob, ReadingSurvivesEveryFailureToAllocate) {
  const Bytes bytes = Write(*MakeRichUnit());
  Read(bytes);
  bool has_failed = true;
  for (unsigned long long successes = 0; has_failed; ++successes) {
    ASSERT_LT(successes, 200u);
    OwnedUnit unit;
    {
      const TestSupport::AllocationWatch watch(successes, 1);
      try {
        unit = Read(bytes);
      } catch (const std::bad_alloc&) {
      }
      has_failed = watch.HasFailed();
    }
    if (unit != nullptr && !has_failed) {
      EXPECT_EQ(Write(*unit), bytes);
    }
  }
}

// Sets the property "Name" of a composite.
struct NameWriter {
  void operator()(auto&) {}
  void operator()(Modification::CompositeValue& composite) {
    auto set = MakeProcessor<Modification::Property>([&](Modification::Property& property) {
      SetValue<Common::String>(property.GetValue(), *text);
    });
    EXPECT_TRUE(composite.Find("Name", set));
  }
  const Common::String* text;
};

// Each of the three doors to the changing of a read tree, alone: what it changes is freed.
TEST(UnitBlob, WhatWasReadIsFreedThroughWhicheverDoorItWasChanged) {
  const Bytes bytes = Write(*MakeRichUnit());
  const Common::String long_text(1000, u'x');

  const OwnedUnit written = Read(bytes);
  NameWriter writer{&long_text};
  Modification::Detail::UnitVisitorAdaptor<NameWriter> visitor(writer);
  static_cast<Modification::Unit&>(*written).Accept(visitor);
  EXPECT_EQ(GetValue<Common::String>(GetProperty(*written, "Name").GetValue()), long_text);

  const OwnedUnit marked = Read(bytes);
  marked->GetTraits().Add(
      GetStaticUnitFactory()->CreateTrait("Mark", GetStaticUnitFactory()->CreateString(long_text)));
  EXPECT_TRUE(HasTrait(*marked, "Mark"));

  const OwnedUnit grown = Read(bytes);
  AddProperty(*grown, "New", GetStaticUnitFactory()->CreateString(long_text),
              *GetStaticUnitFactory());
  EXPECT_EQ(GetValue<Common::String>(GetProperty(*grown, "New").GetValue()), long_text);
}

TEST(UnitBlob, EveryTruncationIsRefusedOrGivesNoUnit) {
  const Bytes whole = Write(*MakeRichUnit());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const Bytes part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    const std::uint32_t code = CodeOf([&] { EXPECT_EQ(Read(part), nullptr) << size; });
    EXPECT_TRUE(code == 0 || code == 0xFA0021) << size << ": " << std::hex << code;
  }
}

// Whatever is accepted survives writing and reading; whatever is not is an error of this model. The
// quick way of well-formed streams and the long way of all others come to the same.
TEST(UnitBlob, ChangedBytesNeverGetThroughAsSomethingElse) {
  const Bytes whole = Write(*MakeRichUnit());
  std::size_t accepted = 0;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const int change : {0x01, 0x02, 0x04, 0x10, 0x40, 0x80, 0xFF}) {
      Bytes bytes = whole;
      bytes[at] = static_cast<unsigned char>(bytes[at] ^ change);
      OwnedUnit unit;
      const std::uint32_t code = CodeOf([&] { unit = Read(bytes); });
      const bool known =
          code == 0 || code == 0xFA0021 || code == 0xFA000A || code == 0xFA000B || code == 0xFA0011;
      EXPECT_TRUE(known) << at << ": " << std::hex << code;
      EXPECT_EQ(Streams::Outcome(bytes, *GetStaticUnitFactory()),
                Streams::Outcome(bytes, Streams::PlainFactory()))
          << at;
      if (unit == nullptr) continue;
      ++accepted;
      const Bytes again = Write(*unit);
      EXPECT_EQ(ToHex(Write(*Read(again))), ToHex(again)) << at;
    }
  }
  EXPECT_GT(accepted, whole.size());
}

TEST(UnitBlob, BothWaysOfReadingComeToTheSame) {
  std::vector<std::pair<std::string, Bytes>> streams;
  for (const Case& item : kCases) streams.emplace_back(item.name, FromHex(item.hex));
  const auto add = [&](const char* name, auto calls) {
    streams.emplace_back(name, Write(*Make(calls)));
  };
  // Traits of one name go by their values; here each goes to the end, in the next ones not.
  add("Traits", [](const UnitConstructor& u) {
    u.Composite();
    for (int i = 1; i < 6; ++i) u.Trait("t").SDWord(i).End();
    u.Trait("u").Array().Nil().End().End().End();
  });
  streams.emplace_back("TraitsOutOfOrder",
                       FromHex("55 43 54 0D 02000000 7400 55 02 02 45 54 0D 02000000 7400 55 02 01"
                               "45 54 0D 02000000 6100 55 00 45 45"));
  streams.emplace_back("TraitTwice",
                       FromHex("55 43 54 0D 02000000 7400 55 02 02 45 54 0D 02000000 7400 55 02 02"
                               "45 45"));
  streams.emplace_back("TraitNaNTwice",
                       FromHex("55 43 54 0D 02000000 7400 55 0A 000000000000F87F 45"
                               "54 0D 02000000 7400 55 0A 000000000000F87F 45 45"));
  streams.emplace_back("MembersOutOfOrder",
                       FromHex("55 43 50 0D 02000000 6200 55 02 02 45 50 0D 02000000 6100 55 00 45"
                               "45"));
  streams.emplace_back("MemberTwice", FromHex("55 43 50 0D 02000000 6200 55 02 02 45"
                                              "50 0D 02000000 6200 55 02 03 45 45"));
  streams.emplace_back("MemberBehindTrait",
                       FromHex("55 43 54 0D 02000000 6200 55 02 02 45 50 0D 02000000 6200 55 02 03"
                               "45 45"));
  streams.emplace_back("MoreBehindTheRoot", FromHex("55 43 45 55 00 45"));
  streams.emplace_back("LongNames", Write(*Make([](const UnitConstructor& u) {
                         u.Composite();
                         for (std::size_t size = 0; size < 100; ++size) {
                           u.Property(Name::FromUtf8(std::string(size, 'n'))).Nil().End();
                         }
                         u.End();
                       })));
  // More names than are kept.
  streams.emplace_back("ManyNames", Write(*Make([](const UnitConstructor& u) {
                         u.Composite();
                         for (int i = 0; i < 5000; ++i) {
                           u.Property(Name::FromUtf8("Property" + std::to_string(i))).Nil().End();
                         }
                         u.End();
                       })));
  // More children than fit into any first place for them.
  streams.emplace_back("ManyElements", Write(*Make([](const UnitConstructor& u) {
                         u.Composite().Property("a").Array();
                         for (int i = 0; i < 3000; ++i) u.QWord(1).End();
                         u.End().End();
                       })));
  for (const auto& [name, bytes] : streams) {
    EXPECT_EQ(Streams::Outcome(bytes, *GetStaticUnitFactory()),
              Streams::Outcome(bytes, Streams::PlainFactory()))
        << name;
  }
}

// A tree that was read is one like any other: changes all over it give what they give on a copy.
TEST(UnitBlob, WhatWasReadCanBeChangedEverywhere) {
  const Construction::UnitFactory& factory = *GetStaticUnitFactory();
  const auto change = [&](Construction::Unit& root) {
    const Common::String long_text(50, u'x');
    AddProperty(root, "Name", factory.CreateString(long_text), factory);
    AddProperty(root, "Another", factory.CreateComposite(), factory);
    DeleteProperty(root, "Guid");
    DeleteProperty(root, "Error");
    AddTrait(root, "Is", factory.CreateString(long_text), factory);
    root.GetTraits().Remove("Nothing");
    Construction::Unit& list = GetProperty(root, "List").GetValue();
    for (int i = 0; i < 20; ++i) AppendToArray(list, factory.CreateByte(1));
    AddProperty(*GetArrayElement(list, 1), "y", factory.CreateString(long_text), factory);
    AddTrait(*GetArrayElement(list, 2), "t", factory.CreateNil(), factory);
    AssignUnit(GetProperty(root, "Blob").GetValue(), *factory.CreateBlob(Bytes(100, 7)), factory);
    AssignUnit(GetProperty(root, "Numbers").GetValue(), list, factory);
    GetProperty(root, "Double")
        .GetValue()
        .GetTraits()
        .Add(factory.CreateTrait("d", factory.CreateError(Common::Error(7, Common::LineTag()))));
  };
  const Bytes bytes = Write(*MakeRichUnit());
  const OwnedUnit read = Read(bytes);
  const OwnedUnit copy = CopyUnit(*read, factory);
  change(*read);
  change(*copy);
  EXPECT_EQ(ToHex(Write(*read)), ToHex(Write(*copy)));
}

// Nothing that was copied out of a tree hangs on the tree.
TEST(UnitBlob, NamesAndPartsOutliveTheTree) {
  OwnedUnit read = Read(Write(*MakeRichUnit()));
  const Name name = FindProperty(std::as_const(*read), "Numbers")->GetName();
  const OwnedUnit part =
      CopyUnit(FindProperty(std::as_const(*read), "List")->GetValue(), *GetStaticUnitFactory());
  OwnedUnit owner = GetStaticUnitFactory()->CreateArray();
  AppendToArray(*owner, std::move(read));
  EXPECT_EQ(GetArraySize(*owner), 1u);
  owner.reset();
  EXPECT_STREQ(name.GetText(), "Numbers");
  EXPECT_EQ(GetArraySize(*part), 3u);
}

// Threads that meet the same new names at the same time, and trees that die on other threads.
TEST(UnitBlob, IsReadOnManyThreads) {
  const auto make = [](int names) {
    return Make([&](const UnitConstructor& u) {
      u.Composite();
      for (int i = 0; i < names; ++i) {
        u.Property(Name::FromUtf8("Thread" + std::to_string(i))).String(u"a longer text").End();
      }
      u.End();
    });
  };
  const Bytes bytes = Write(*make(200));
  std::vector<OwnedUnit> units(8 * 20);
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, thread] {
      for (std::size_t i = 0; i < 20; ++i) {
        Read(bytes);
        units[thread * 20 + i] = Read(bytes);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const OwnedUnit& unit : units) EXPECT_EQ(Write(*unit), bytes);
}

Bytes Nested(unsigned int levels, std::string_view down, std::string_view core) {
  Bytes bytes = FromHex("55");
  const Bytes step = FromHex(down);
  const Bytes last = FromHex(core);
  for (unsigned int i = 1; i < levels; ++i) bytes.insert(bytes.end(), step.begin(), step.end());
  bytes.insert(bytes.end(), last.begin(), last.end());
  bytes.insert(bytes.end(), levels, 0x45);
  return bytes;
}

// Arrays in arrays, members in members, traits on traits.
TEST(UnitBlob, UnitsNestAThousandLevels) {
  for (const char* const step :
       {"41 55", "43 50 0D 02000000 6100 55", "00 54 0D 02000000 6100 55"}) {
    const Bytes deepest = Nested(1000, step, "00");
    EXPECT_EQ(Write(*Read(deepest)), deepest) << step;
    const Bytes deeper = Nested(1001, step, "00");
    EXPECT_EQ(CodeOf([&] { Read(deeper); }), 0xFA0021u) << step;
  }
  try {
    Read(Nested(1001, "41 55", "00"));
    ADD_FAILURE();
  } catch (const ModuleError& error) {
    // Behind the tag of the value that would be one level too deep.
    EXPECT_NE(error.GetMessage().find(u"at position '2002'."), Common::String::npos);
  }
  EXPECT_EQ(CodeOf([] { Read(Bytes(300000, 'A')); }), 0xFA0021u);
}

// A walker of its own sees the events as they stand in the stream.
TEST(UnitBlob, FollowGivesTheEventsOfTheStream) {
  class Recorder : public UnitWalker {
   public:
    std::string log;
    void OnUnitBegin() override { log += "U"; }
    void OnUnitEnd() override { log += "E"; }
    void OnProperty(const Name& name) override { log += std::string("P:") + name.GetText() + " "; }
    void OnTrait(const Name& name) override { log += std::string("T:") + name.GetText() + " "; }
    void OnNil() override { log += "nil "; }
#define POR_EVENT(index, Word, Value, Argument) \
  void On##Word(Argument) override {            \
    log += #Word " ";                           \
  }
    POR_SCALAR_KINDS(POR_EVENT)
#undef POR_EVENT
#define POR_EVENT(index, Word, Value, Argument) \
  void On##Word(const Argument&) override {     \
    log += #Word " ";                           \
  }
    POR_COMPLEX_KINDS(POR_EVENT)
#undef POR_EVENT
    void OnArray() override {
      log += "A";
    }
    void OnComposite() override {
      log += "C";
    }
  };
  const Bytes bytes = Write(*Make([](const UnitConstructor& u) {
    u.Composite().Property("a").Array().Byte(1).End().End().Trait("t").Nil().End().End();
  }));
  Recorder followed;
  FollowUnitBlob(bytes.data(), bytes.size(), followed);
  EXPECT_EQ(followed.log, "UUUCP:a AUByte EET:t nil EE");

  // The walk of the unit itself, by default and on another way.
  const OwnedUnit unit = Read(bytes);
  Recorder walked;
  WalkUnit(*unit, walked);
  EXPECT_EQ(walked.log, "UCP:a UAUByte EET:t Unil EE");
  class TraitsFirst : public TraitValueGuide {
   public:
    void Follow(TraitValueCrossroad& crossroad) override {
      crossroad.GoTraits();
      crossroad.GoValue(false);
    }
  } guide;
  Recorder guided;
  WalkUnit(*unit, guide, guided);
  EXPECT_EQ(guided.log, "UT:t Unil ECE");
}

// Reading makes its units by the factory that it is given.
TEST(UnitBlob, UsesTheFactoryItIsGiven) {
  class RefusingFactory : public Construction::UnitFactory {
   public:
    OwnedUnit CreateNil() const override { Refuse(); }
#define POR_CREATE(index, Word, Value, Argument)    \
  OwnedUnit Create##Word(Argument) const override { \
    Refuse();                                       \
  }
    POR_SCALAR_KINDS(POR_CREATE)
#undef POR_CREATE
#define POR_CREATE(index, Word, Value, Argument)           \
  OwnedUnit Create##Word(const Argument&) const override { \
    Refuse();                                              \
  }
    POR_COMPLEX_KINDS(POR_CREATE)
#undef POR_CREATE
    OwnedUnit CreateArray() const override {
      Refuse();
    }
    OwnedUnit CreateComposite() const override {
      Refuse();
    }
    OwnedTrait CreateTrait(const Name&, OwnedUnit) const override {
      Refuse();
    }
    OwnedProperty CreateProperty(const Name&, OwnedUnit) const override {
      Refuse();
    }

   private:
    [[noreturn]] static void Refuse() {
      throw Common::Error(77, Common::LineTag());
    }
  } factory;
  for (const Case& item : kCases) {
    EXPECT_EQ(CodeOf([&] { ReadUnitBlob(FromHex(item.hex), factory); }), 77u) << item.name;
  }
}

}  // namespace
}  // namespace Por::Util
