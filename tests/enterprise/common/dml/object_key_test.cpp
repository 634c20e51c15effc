#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/support/text.h"

// Expected digests are the output of md5sum for streams written down by hand, for example
//   printf '\x55\x06\x05\x00\x00\x00\x45' | md5sum
// for a dword of 5, with the first three groups turned round as a GUID prints its little-endian
// fields.

namespace Dml {
namespace {

using Por::OwnedUnit;
using Por::Test::Array;
using Por::Test::Composite;
using Por::Test::DWord;
using Por::Test::Factory;
using Por::Test::Nil;
using Por::Test::Text;
using Por::Test::With;
using TestSupport::Utf8;

OwnedUnit Keyed(OwnedUnit unit, OwnedUnit key) {
  return With(std::move(unit), "PrimaryKey", std::move(key));
}

// The GUID of the bytes 1 to 16 and its text.
OwnedUnit CountingGuid() {
  Common::Guid guid;
  for (unsigned char i = 0; i < 16; ++i) guid.bytes[i] = static_cast<unsigned char>(i + 1);
  return Factory().CreateGuid(guid);
}
constexpr char kCountingText[] = "04030201-0605-0807-090A-0B0C0D0E0F10";

unsigned int KeyNumber(OwnedUnit object) {
  return Por::Util::GetValue<unsigned int>(FindObjectKey(*object), 0);
}

TEST(ObjectKey, TheNearestAndThenTheFirstWins) {
  EXPECT_EQ(KeyNumber(Keyed(Composite("a", Keyed(Nil(), DWord(2))), DWord(1))), 1u);
  // Depth 1 in a later property goes before depth 2.
  EXPECT_EQ(KeyNumber(Composite("a", Composite("x", Keyed(Nil(), DWord(2))), "b",
                                Keyed(Nil(), DWord(1)))),
            1u);
  EXPECT_EQ(KeyNumber(Composite("a", Keyed(Nil(), DWord(1)), "b", Keyed(Nil(), DWord(2)))), 1u);
  // The walk goes on behind an array, and what it meets there is ignored.
  EXPECT_EQ(KeyNumber(Composite("a", Array(Keyed(Nil(), DWord(1))), "b",
                                Composite("x", Keyed(Nil(), DWord(2))))),
            1u);
  EXPECT_EQ(KeyNumber(Array(Keyed(Array(), DWord(1)), Array(Keyed(Nil(), DWord(2))))), 1u);
  // Two keys on one unit: the first in the order of traits.
  EXPECT_EQ(KeyNumber(Keyed(Keyed(Nil(), DWord(9)), DWord(1))), 1u);
  // Traits are not walked.
  EXPECT_THROW(FindObjectKey(*With(Nil(), "Other", Keyed(Nil(), DWord(1)))), Common::Error);
}

TEST(ObjectKey, ANilKeyMeansTheUnitItself) {
  const OwnedUnit object =
      Composite("list", Array(DWord(3), Keyed(Nil(), Nil())), "other", Composite("x", DWord(4)));
  const Por::View::Unit& list = Por::Util::FindProperty(*object, "list")->GetValue();
  EXPECT_EQ(&FindObjectKey(*object), Por::Util::GetArrayElement(list, 1));

  const OwnedUnit root = Keyed(Composite("a", DWord(1)), Nil());
  EXPECT_EQ(&FindObjectKey(*root), root.get());
}

TEST(ObjectKey, NoKeyIsAnErrorButNoneOfTheUnitModel) {
  for (const OwnedUnit& object :
       {Composite("a", Array(DWord(1))), With(Nil(), "primarykey", Nil())}) {
    try {
      GetObjectKey(*object);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const Common::Error& error) {
      EXPECT_EQ(dynamic_cast<const Por::ModuleError*>(&error), nullptr);
      EXPECT_EQ(error.GetCode(), 0xFC000Au);
      EXPECT_EQ(Utf8(error.GetMessage()), "DML: Object identification cannot be found.");
      EXPECT_EQ(Utf8(error.ToString()).find("TraceLevel"), std::string::npos);
    }
  }
}

TEST(ObjectKey, ABareGuidIsItself) {
  EXPECT_EQ(Utf8(GetObjectKeyFromKey(*CountingGuid())), kCountingText);
  EXPECT_EQ(Utf8(GetObjectKeyFromKey(*With(CountingGuid(), "Other", Nil()))), kCountingText);
  EXPECT_EQ(Utf8(GetObjectKey(*Composite("a", Keyed(DWord(1), CountingGuid())))), kCountingText);
}

TEST(ObjectKey, AMarkedGuidIsHashedWithItsMark) {
  // 55 0C (16 bytes) 54 0D 14 00 00 00 "PrimaryKey" 55 00 45 45
  constexpr char kPrimary[] = "2835FD5B-8226-7A4F-F30E-6D4BA1898DD6";
  EXPECT_EQ(Utf8(GetObjectKey(*Composite("ID", Keyed(CountingGuid(), Nil())))), kPrimary);
  EXPECT_EQ(Utf8(GetObjectKeyFromKey(*Keyed(CountingGuid(), Nil()))), kPrimary);
  // The same with "ForeignKey".
  EXPECT_EQ(Utf8(GetObjectKeyFromKey(*With(CountingGuid(), "ForeignKey", Nil()))),
            "BBBCD1BE-AA11-E3A2-FA89-2013180208BC");
}

TEST(ObjectKey, OtherKeysAreHashedWithoutTheirTimeStamp) {
  // 55 06 05 00 00 00 45
  EXPECT_EQ(Utf8(GetObjectKey(*Keyed(Text(u"any"), DWord(5)))),
            "87FEF046-0D52-D72F-4C56-E6435A81C7A2");
  // 55 43 50 0D 04 00 00 00 "Id" 55 06 05 00 00 00 45 54 0D 14 00 00 00 "PrimaryKey" 55 00 45 45
  constexpr char kRoot[] = "7A58B7EF-1A4F-0609-A2E7-C3B0E9245438";
  EXPECT_EQ(Utf8(GetObjectKey(*Keyed(Composite("Id", DWord(5)), Nil()))), kRoot);
  for (unsigned int stamp : {1u, 2u}) {
    EXPECT_EQ(
        Utf8(GetObjectKey(*Keyed(Composite("DmlTimeStamp", DWord(stamp), "Id", DWord(5)), Nil()))),
        kRoot);
  }
  // Deeper ones count: 55 43 50 "x" 55 43 50 "DmlTimeStamp" 55 06 01 00 00 00 45 50 "Id" ...
  EXPECT_EQ(Utf8(GetObjectKeyFromKey(
                *Composite("x", Composite("DmlTimeStamp", DWord(1), "Id", DWord(5))))),
            "35711E49-EA2F-19C2-4C0D-248FDD95BBB9");
}

}  // namespace
}  // namespace Dml
