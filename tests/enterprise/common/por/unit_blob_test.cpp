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
#include "enterprise/common/por/unit_digest.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "enterprise/common/por/walk_unit.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/stream_support.h"
#include "tests/support/allocation_watch.h"

namespace Por::Util {
namespace {

using namespace Por::Streams;  // NOLINT: the vocabulary of these tests
using namespace Por::Test;     // NOLINT: likewise

OwnedUnit SampleGuid() {
  return Guid({0x40, 0xFC, 0x29, 0x6B, 0x47, 0xCA, 0x67, 0x10, 0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06,
               0x62, 0xDA});
}

OwnedUnit MakeLongArray(unsigned int size) {
  OwnedUnit array = Array();
  for (unsigned int i = 0; i < size; ++i) AppendToArray(*array, QWord(i));
  return array;
}

// What makes a stream behind it that of a member; well-formed ones are read on a way of their own.
constexpr char kMember[] = "55 43 Pa";

// The bytes of the events that `walk` gives to a walker.
template <class Walk>
Bytes Record(Walk walk) {
  Bytes bytes;
  BlobWriter writer(bytes);
  BinaryDataProvider provider(writer);
  walk(provider);
  return bytes;
}

TEST(UnitBlob, HasTheseBytes) {
  const Name no_text = Name::FromUtf8("a\xFF");  // a byte that is no UTF-8 is written as U+FFFD
  const Name beyond_ascii(Common::String(u"\u20ACx"));
  const struct {
    OwnedUnit unit;
    const char* hex;
  } kCases[] = {
      {Nil(), "55 00 45"},
      {Boolean(true), "55 01 01 45"},
      {Byte(0xAB), "55 02 AB 45"},
      {SByte(-2), "55 03 FE 45"},
      {Word(0x1234), "55 04 3412 45"},
      {SWord(-2), "55 05 FEFF 45"},
      {DWord(0x01020304), "55 06 04030201 45"},
      {SDWord(-2), "55 07 FEFFFFFF 45"},
      {QWord(0x0102030405060708), "55 08 0807060504030201 45"},
      {SQWord(-2), "55 09 FEFFFFFFFFFFFFFF 45"},
      {Double(-1.5), "55 0A 000000000000F8BF 45"},
      {Blob({1, 0, 255}), "55 0B 03000000 0100FF 45"},
      {Blob({}), "55 0B 00000000 45"},
      {SampleGuid(), "55 0C 40FC296B 47CA 6710 B31D00DD010662DA 45"},
      // A code unit 0 is text like any other.
      {Text(Common::String(u"a\0\u20AC", 3)), "55 0D 06000000 6100 0000 AC20 45"},
      {Text(u""), "55 0D 00000000 45"},
      {ErrorUnit({}), "55 0E 01000000 01 45"},
      {ErrorUnit(Common::Error(0x12, "x", Common::LineTag())),
       "55 0E 2E000000 01 12000000 0000000000000000 7800"
       "246D6F64756C6500 41 6F626A70726F62655F6C786136345F343332363700 00 45"},
      {Array(), "55 41 45"},
      {Array(Byte(1), Nil()), "55 41 55 02 01 45 55 00 45 45"},
      {Composite(), "55 43 45"},
      {Composite("a", DWord(5)), "55 43 50 0D 02000000 6100 55 06 05000000 45 45"},
      // Members in name order, traits behind them.
      {With(Composite("b", Nil(), "a", Nil()), "t", Nil()),
       "55 43 50 0D 02000000 6100 55 00 45 50 0D 02000000 6200 55 00 45"
       "54 0D 02000000 7400 55 00 45 45"},
      {With(Byte(7), "k", Boolean(true)), "55 02 07 54 0D 02000000 6B00 55 01 01 45 45"},
      {Composite(beyond_ascii, Nil()), "55 43 50 0D 04000000 AC20 7800 55 00 45 45"},
      {Composite(no_text, Nil()), "55 43 50 0D 04000000 6100 FDFF 55 00 45 45"},
      {Composite("", Nil()), "55 43 50 0D 00000000 55 00 45 45"},
  };
  for (const auto& item : kCases) {
    SCOPED_TRACE(item.hex);
    const Bytes bytes = FromHex(item.hex);
    EXPECT_EQ(ToHex(Write(*item.unit)), ToHex(bytes));
    // The walk, item by item, gives the same.
    EXPECT_EQ(Record([&](UnitWalker& walker) { WalkUnit(*item.unit, walker); }), bytes);
    EXPECT_EQ(Outcome(bytes), ToHex(bytes));
    const PlainFactory factory;
    ReadUnitBlob(bytes, factory);
    EXPECT_NE(factory.made, 0u) << "units come from the factory that is given";
    const Bytes member = FromHex(kMember + std::string(item.hex) + "45");
    EXPECT_EQ(Outcome(member), ToHex(member));
  }
}

// Payloads around and above the size of any buffer on the way, and items of 11 bytes that meet the
// end of one in every way.
TEST(UnitBlob, LargePayloadsAreWrittenAsTheWalkWritesThem) {
  for (const std::size_t size : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 15u, 16u, 500u, 512u,
                                 1024u, 4096u, 5000u, 70000u}) {
    const OwnedUnit unit = Composite(Name::FromUtf8(std::string(size, 'n')), Blob(Bytes(size, 3)),
                                     Name(Common::String(size, u'\u20AC')),
                                     Text(Common::String(size, u'x')), "z", MakeLongArray(1000));
    const Bytes walked = Record([&](UnitWalker& walker) { WalkUnit(*unit, walker); });
    EXPECT_TRUE(Write(*unit) == walked) << size;
    EXPECT_TRUE(UnitEqual(*unit, *Read(walked))) << size;
    MD5HashConsumer hash;
    hash.Consume(walked.data(), static_cast<std::uint32_t>(walked.size()));
    EXPECT_EQ(ComputeUnitDigest(*unit), hash.Finish()) << size;
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
      {"55 43 45 55 00 45", "55 00 45", "the last root wins"},
      {"55 43 50 FF 02000000 6100 55 02 05 45 45", "55 43 Pa 55 02 05 45 45",
       "the tag of a name is not looked at"},
      {"43 Pa 02 05 45 45", "55 43 Pa 55 02 05 45 45", "the item behind a name may be the value"},
      {"43 Pa 43 02 05 45 45", "55 43 Pa 55 02 05 45 45", "or anything at all"},
      {"55 43 50 0D 06000000 6100 0000 6200 55 02 05 45 45", "55 43 Pa 55 02 05 45 45",
       "a unit 0 ends a name"},
      {"55 43 Pb 55 02 02 45 Pa 55 00 45 45", "55 43 Pa 55 00 45 Pb 55 02 02 45 45",
       "members out of order"},
      {"55 43 Pb 55 02 02 45 Pb 55 02 03 45 45", "55 43 Pb 55 02 03 45 45", "a member twice"},
      {"55 43 Tb 55 02 02 45 Pb 55 02 03 45 45", "55 43 Pb 55 02 03 45 Tb 55 02 02 45 45",
       "a member behind a trait"},
      {"55 43 Tt 55 02 02 45 Tt 55 02 01 45 Ta 55 00 45 45",
       "55 43 Ta 55 00 45 Tt 55 02 01 45 Tt 55 02 02 45 45",
       "traits out of order, by name and by value"},
      {"55 43 Tt 55 02 02 45 Tt 55 02 02 45 45", "55 43 Tt 55 02 02 45 45", "a trait twice"},
      {"55 43 Tt 55 0A 000000000000F87F 45 Tt 55 0A 000000000000F87F 45 45",
       "55 43 Tt 55 0A 000000000000F87F 45 Tt 55 0A 000000000000F87F 45 45",
       "no NaN equals another"},
  };
  for (const auto& item : kTolerated) {
    EXPECT_EQ(Outcome(FromHex(item.stream)), ToHex(FromHex(item.unit)))
        << item.stream << ": " << item.reason;
  }
}

TEST(UnitBlob, RefusesCorruptedDataWithItsPositionAndDump) {
  constexpr struct {
    const char* stream;
    int position;
    const char* reason;
  } kCorrupted[] = {
      {"0F", 1, "no such tag"},
      {"55 FF 45", 2, "no such tag"},
      {"55 01", 2, "no boolean"},
      {"55 08 01020304050607", 2, "seven bytes of eight"},
      {"55 0B 0200", 2, "half a count"},
      {"55 0B 04000000 010203", 2, "three bytes of four"},
      {"55 0D FFFFFFFF 6100", 2, "a count of everything"},
      {"55 0D 03000000 610062 45 45", 2, "half a code unit"},
      {"55 0E 05000000 01", 2, "an error cut short"},
      {"55 43 50", 3, "no name"},
      {"55 43 50 0D 0200", 3, "half the count of a name"},
      {"55 43 54 0D 03000000 610062 55 00 45 45", 3, "half a code unit in a name"},
      {"55 43 Pa", 10, "nothing behind a name"},
      {"55 43 Pa 06 0000", 11, "a value cut short behind a name"},
  };
  for (const auto& item : kCorrupted) {
    for (const bool member : {false, true}) {
      if (member && item.stream[0] != '5') continue;
      const Bytes bytes = FromHex((member ? kMember : "") + std::string(item.stream));
      const std::string position = std::to_string(item.position + (member ? 10 : 0));
      EXPECT_EQ(Outcome(bytes), "ModuleError fa0021: POR: Unit object '" + ToHex(bytes) +
                                    "' is corrupted at position '" + position + "'.")
          << item.reason;
    }
  }
  EXPECT_NE(Catch([] { Read({0x0F}); }).place.find(" Follow"), std::string::npos);
  // Items in the wrong place fail as the calls that they stand for.
  EXPECT_EQ(Outcome(FromHex("55 41 50 0D 00000000 55 00 45 45")).substr(0, 13), "Error fa000a:");
  EXPECT_EQ(Outcome(FromHex("50 0D 00000000 55 00 45 45")).substr(0, 19), "ModuleError fa000b:");
}

OwnedUnit MakeRichUnit() {
  const Common::Error error(0x40001, "bad", Common::LineTag());
  OwnedUnit unit =
      Composite("Blob", Blob({1, 2, 3}), "Double", Double(0.25), "Error", ErrorUnit(error), "Guid",
                With(SampleGuid(), "PrimaryKey", Nil()), "List",
                Array(Word(1), Composite("x", Boolean(true)), Array()), "Name", Text(u"caf\u00E9"),
                "Numbers", Array(SByte(-1), SWord(-2), SDWord(-3), SQWord(-4), QWord(5)));
  return With(With(std::move(unit), "Is", Text(u"Machine")), "Is", Text(u"Host"));
}

// A piece of memory or two hold the tree of more than a hundred nodes; only long texts and blobs
// have their own. Digests take none.
TEST(UnitBlob, WellFormedStreamsTakeHardlyAnyAllocations) {
  OwnedUnit list = Array();
  for (int i = 0; i < 30; ++i) AppendToArray(*list, Composite("Id", SampleGuid()));
  const Bytes bytes =
      Write(*With(Composite("ListOfUnits", std::move(list), "ListOfUnits2", Double(1)), "Is",
                  Text(u"Machine")));
  Read(bytes);
  const Bytes large = Write(*Composite("List", MakeLongArray(60000)));
  const TestSupport::AllocationWatch watch;
  const OwnedUnit unit = Read(bytes);
  const unsigned long long count = watch.GetCount();
  EXPECT_LE(count, 2u);
  ComputeUnitDigest(*unit);
  EXPECT_EQ(watch.GetCount(), count);
  const OwnedUnit large_unit = Read(large);
  EXPECT_LE(watch.GetCount(), count + 20u);
}

// Every lack of memory ends in std::bad_alloc or an empty error, and loses nothing.
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
    if (!has_failed) {
      EXPECT_EQ(Write(*unit), bytes);
    }
  }
}

// The text of the failure needs memory, as does its record; without it there is still an error.
TEST(UnitBlob, RefusesCorruptedDataWithoutMemory) {
  MD5HashConsumer sink;  // takes no memory
  BinaryDataProvider walker(sink);
  const Bytes bytes(100, 0x0F);
  std::uint32_t code = 0;
  for (unsigned long long successes = 0; code != 0xFA0021u; ++successes) {
    ASSERT_LT(successes, 10u);
    const TestSupport::AllocationWatch watch(successes, 1);
    try {
      FollowUnitBlob(bytes.data(), bytes.size(), walker);
    } catch (const Common::Error& error) {
      code = error.GetCode();
    }
    EXPECT_EQ(code, watch.HasFailed() ? Common::kOutOfMemoryCode : 0xFA0021u);
  }
}

// Each of the three doors to the changing of a read tree, alone: what it changes is freed.
TEST(UnitBlob, WhatWasReadIsFreedThroughWhicheverDoorItWasChanged) {
  const Bytes bytes = Write(*MakeRichUnit());
  const auto text = [] { return Text(Common::String(1000, u'x')); };
  using Door = std::function<void(Construction::Unit&)>;
  for (const Door& change : {
           Door([&](auto& unit) { AssignUnit(unit, *Composite("Name", text()), Factory()); }),
           Door([&](auto& unit) { unit.GetTraits().Add(Factory().CreateTrait("Mark", text())); }),
           Door([&](auto& unit) { AddProperty(unit, "New", text(), Factory()); }),
       }) {
    const OwnedUnit read = Read(bytes);
    change(*read);
    EXPECT_GT(Write(*read).size(), bytes.size() + 1900);
  }
}

TEST(UnitBlob, EveryTruncationIsRefusedOrGivesNoUnit) {
  const Bytes whole = Write(*MakeRichUnit());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const std::string outcome = Outcome(Bytes(whole.data(), whole.data() + size));
    EXPECT_TRUE(outcome.empty() || outcome.find("fa0021") != std::string::npos) << outcome;
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
      const std::string outcome = Outcome(bytes);
      const std::size_t error = outcome.find("Error ");
      if (error != std::string::npos) {
        const std::string code = outcome.substr(error + 6, 6);
        EXPECT_TRUE(code == "fa0021" || code == "fa000a" || code == "fa000b" || code == "fa0011")
            << at << ": " << outcome;
      } else if (!outcome.empty()) {
        ++accepted;
        EXPECT_EQ(Outcome(FromHex(outcome)), outcome) << at;
      }
    }
  }
  EXPECT_GT(accepted, whole.size());
}

// Trees at the limits of what the quick way keeps at hand.
TEST(UnitBlob, BothWaysOfReadingComeToTheSame) {
  OwnedUnit traits = With(Composite(), "u", Array(Nil()));
  for (int i = 1; i < 6; ++i) AddTrait(*traits, "t", SDWord(i), Factory());
  OwnedUnit long_names = Composite();
  OwnedUnit many_names = Composite();
  const auto add = [](Construction::Unit& composite, const std::string& name) {
    AddProperty(composite, Name::FromUtf8(name), Nil(), Factory());
  };
  for (std::size_t size = 0; size < 100; ++size) add(*long_names, std::string(size, 'n'));
  for (int i = 0; i < 5000; ++i) add(*many_names, "Property" + std::to_string(i));
  for (const OwnedUnit& unit : List(std::move(traits), std::move(long_names), std::move(many_names),
                                    Composite("a", MakeLongArray(3000)))) {
    const Bytes bytes = Write(*unit);
    EXPECT_EQ(Outcome(bytes), ToHex(bytes));
  }
}

// A tree that was read is one like any other: changes all over it give what they give on a copy.
TEST(UnitBlob, WhatWasReadCanBeChangedEverywhere) {
  const auto change = [](Construction::Unit& root) {
    const Common::String long_text(50, u'x');
    AddProperty(root, "Name", Text(long_text), Factory());
    AddProperty(root, "Another", Composite(), Factory());
    DeleteProperty(root, "Guid");
    DeleteProperty(root, "Error");
    AddTrait(root, "Is", Text(long_text), Factory());
    root.GetTraits().Remove("Nothing");
    Construction::Unit& list = GetProperty(root, "List").GetValue();
    for (int i = 0; i < 20; ++i) AppendToArray(list, Byte(1));
    AddProperty(*GetArrayElement(list, 1), "y", Text(long_text), Factory());
    AddTrait(*GetArrayElement(list, 2), "t", Nil(), Factory());
    AssignUnit(GetProperty(root, "Blob").GetValue(), *Blob(Bytes(100, 7)), Factory());
    AssignUnit(GetProperty(root, "Numbers").GetValue(), list, Factory());
    AddTrait(GetProperty(root, "Double").GetValue(), "d",
             ErrorUnit(Common::Error(7, Common::LineTag())), Factory());
  };
  const OwnedUnit read = Read(Write(*MakeRichUnit()));
  const OwnedUnit copy = CopyUnit(*read, Factory());
  change(*read);
  change(*copy);
  EXPECT_EQ(ToHex(Write(*read)), ToHex(Write(*copy)));
}

// Nothing that was copied out of a tree hangs on the tree.
TEST(UnitBlob, NamesAndPartsOutliveTheTree) {
  OwnedUnit read = Read(Write(*MakeRichUnit()));
  const Name name = FindProperty(std::as_const(*read), "Numbers")->GetName();
  const OwnedUnit part =
      CopyUnit(FindProperty(std::as_const(*read), "List")->GetValue(), Factory());
  OwnedUnit owner = Array(std::move(read));
  EXPECT_EQ(GetArraySize(*owner), 1u);
  owner.reset();
  EXPECT_STREQ(name.GetText(), "Numbers");
  EXPECT_EQ(GetArraySize(*part), 3u);
}

// Threads that meet the same new names at the same time, and trees that die on other threads.
TEST(UnitBlob, IsReadOnManyThreads) {
  OwnedUnit unit = Composite();
  for (int i = 0; i < 200; ++i) {
    AddProperty(*unit, Name::FromUtf8("Thread" + std::to_string(i)), Text(u"a longer text"),
                Factory());
  }
  const Bytes bytes = Write(*unit);
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
  for (const OwnedUnit& read : units) EXPECT_EQ(Write(*read), bytes);
}

Bytes Nested(unsigned int levels, std::string_view down) {
  std::string hex = "55";
  for (unsigned int i = 1; i < levels; ++i) hex += down;
  hex += "00";
  for (unsigned int i = 0; i < levels; ++i) hex += "45";
  return FromHex(hex);
}

// Arrays in arrays, members in members, traits on traits.
TEST(UnitBlob, UnitsNestAThousandLevels) {
  for (const char* const step : {"41 55", "43 Pa 55", "00 Ta 55"}) {
    const Bytes deepest = Nested(1000, step);
    EXPECT_EQ(Write(*Read(deepest)), deepest) << step;
    EXPECT_NE(Outcome(Nested(1001, step)).find("ModuleError fa0021: "), std::string::npos) << step;
  }
  // Behind the tag of the value that would be one level too deep.
  EXPECT_NE(Outcome(Nested(1001, "41 55")).find("at position '2002'."), std::string::npos);
  EXPECT_NE(Outcome(Bytes(300000, 'A')).find("ModuleError fa0021: "), std::string::npos);
}

// The events as they stand in the stream, begin and tag of a composite each giving one more begin.
TEST(UnitBlob, EventsOfTheStreamAndOfAWalk) {
  const Bytes bytes = FromHex("55 43 Pa 55 41 55 02 01 45 45 Tt 55 00 45 45");
  EXPECT_EQ(Record([&](UnitWalker& walker) { FollowUnitBlob(bytes.data(), bytes.size(), walker); }),
            FromHex("55 55 55 43 Pa 41 55 02 01 45 45 Tt 00 45 45"));
  // A walk on another way than the default one, which the writer takes.
  class TraitsFirst : public TraitValueGuide {
   public:
    void Follow(TraitValueCrossroad& crossroad) override {
      crossroad.GoTraits();
      crossroad.GoValue(false);
    }
  } guide;
  EXPECT_EQ(Record([&](UnitWalker& walker) { WalkUnit(*Read(bytes), guide, walker); }),
            FromHex("55 Tt 55 00 45 43 45"));
}

}  // namespace
}  // namespace Por::Util
