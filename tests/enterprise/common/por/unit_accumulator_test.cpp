#include "enterprise/common/por/unit_accumulator.h"

#include <gtest/gtest.h>

#include <string>

#include "enterprise/common/por/unit_constructor.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/parser/unit_text.h"
#include "tests/enterprise/common/por/stream_support.h"

namespace Por::Util {
namespace {

using namespace Por::Test;  // NOLINT: the vocabulary of these tests

struct Row {
  const char* calls;   // as unit text
  const char* result;  // as unit text, "" for no unit, or the beginning of the error
};

constexpr char kNullUnit[] = "ModuleError fa000b: ";
constexpr char kNoComposite[] = "Error fa000a: ";
constexpr char kOtherType[] = "ModuleError fa0011: ";

constexpr Row kRows[] = {
    // The last root is the result; an empty one leaves nothing of an earlier one.
    {"", ""},
    {".Composite()", ""},
    {".Composite().End().Byte(1).End()", ".Byte(1).End()"},
    {".Byte(1).End().End()", ""},
    // A value behind a root is dropped unless the root is an array.
    {".Byte(1).Byte(2).Composite().End()", ".Byte(1).End()"},
    {".Array().Byte(1).End().Array().End().End()", ".Array().Byte(1).End().Array().End().End()"},
    // A value takes the place of nil; a property that is there already goes in again by name.
    {".Nil().Byte(1).End()", ".Byte(1).End()"},
    {".Composite().Property('a').Nil().Byte(1).End().End()",
     ".Composite().Property('a').Byte(1).End().End()"},
    {".Composite().Property('a').Nil().End().Property('a').Byte(1).End().End()",
     ".Composite().Property('a').Byte(1).End().End()"},
    // A trait becomes a property then, if there is a composite to take it; an element would have to
    // become one of the array.
    {".Composite().Trait('t').Nil().Byte(1).End().End()",
     ".Composite().Property('t').Byte(1).End().End()"},
    {".Byte(2).Trait('t').Nil().Byte(1).End()", kNoComposite},
    {".Array().Nil().Byte(1).End()", kNoComposite},
    // A second value of a property needs its own End and is dropped.
    {".Composite().Property('a').Byte(1).Byte(2).End().End().End()",
     ".Composite().Property('a').Byte(1).End().End()"},
    {".Composite().Property('a').Byte(1).Byte(2).End().End()", ""},
    // An existing property is changed in place. A composite stays, whatever is put over it, and
    // takes further properties.
    {".Composite().Property('a').Byte(1).Trait('t').Nil().End().End()"
     ".Property('a').Byte(2).End().End()",
     ".Composite().Property('a').Byte(2).Trait('t').Nil().End().End().End()"},
    {".Composite().Property('a').Byte(1).End().Property('a').String('x').End()", kOtherType},
    {".Composite().Property('a').Composite().Property('x').Byte(1).End().End()"
     ".Property('a').Byte(9).Composite().Property('y').Byte(2).End().End().End()",
     ".Composite().Property('a').Composite()"
     ".Property('x').Byte(1).End().Property('y').Byte(2).End().End().End()"},
    // An existing array is overwritten from its first element: what is not reached stays, more is
    // appended. Elements of an element that is an array are none of the existing one.
    {".Composite().Property('a').Array().Byte(1).End().Byte(2).End().End()"
     ".Property('a').Array().Byte(8).End().End().End()",
     ".Composite().Property('a').Array().Byte(8).End().Byte(2).End().End().End()"},
    {".Composite().Property('a').Array().Byte(1).End().End()"
     ".Property('a').Array().Byte(8).End().Byte(9).End().End().End()",
     ".Composite().Property('a').Array().Byte(8).End().Byte(9).End().End().End()"},
    {".Composite().Property('a').Array().Byte(1).End().End()"
     ".Property('a').Array().Word(8).End()",
     kOtherType},
    {".Composite().Property('a').Array().Array().Byte(1).End().End().End()"
     ".Property('a').Array().Array().Byte(2).End().End().End().End()",
     ".Composite().Property('a').Array()"
     ".Array().Byte(1).End().Byte(2).End().End().End().End()"},
    // An array over an existing nil or scalar makes none.
    {".Composite().Property('a').Nil().End().Property('a').Array().Byte(1).End().End()",
     ".Composite().Property('a').Byte(1).End().End()"},
    {".Composite().Property('a').Byte(1).End().Property('a').Array().Byte(2).End().End().End()",
     ".Composite().Property('a').Byte(1).End().End()"},
    // Calls that make no sense.
    {".Property('a')", kNullUnit},
    {".Trait('a').Nil().End()", kNullUnit},
    {".Composite().Property('a').End()", kNullUnit},
    {".Nil().Trait('a').End()", kNullUnit},
    {".Composite().Property('a').Property('b')", kNullUnit},
    {".Array().Property('a')", kNoComposite},
    {".DWord(1).Property('a')", kNoComposite},
};

TEST(UnitAccumulator, MakesOfCallsWhatTheTableTells) {
  for (const Row& row : kRows) {
    const Utils::TextOutcome outcome = Utils::ReadText(row.calls);
    const std::string& error = outcome.thrown.error;
    EXPECT_EQ(error == "nothing" ? outcome.printed : error.substr(0, error.find(": ") + 2),
              row.result)
        << row.calls;
  }
}

TEST(UnitConstructor, TakesWholeUnitsWithTheirEndAndGivesTheResultOnce) {
  const OwnedUnit inner = With(Array(Byte(1)), "t", Double(2));
  const UnitConstructor make(Factory());
  make.Composite().Property("a").Unit(*inner).Property("b").Unit(*inner).End();
  const std::string part = Streams::ToHex(Streams::Write(*inner));
  EXPECT_EQ(Streams::ToHex(Streams::Write(*make.TakeResult())),
            "5543500d020000006100" + part + "500d020000006200" + part + "45");
  EXPECT_EQ(make.TakeResult(), nullptr);
}

}  // namespace
}  // namespace Por::Util
