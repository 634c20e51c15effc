#include "enterprise/common/por/parser/unit_construction_format.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "enterprise/common/por/binary_data.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_text_format.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/parser/unit_text.h"
#include "tests/enterprise/common/por/stream_support.h"

namespace Utils {
namespace {

using namespace Por::Test;  // NOLINT: the vocabulary of these tests

constexpr char kPrefix[] = "Interpret trace: ";

TEST(UnitText, IsReadAndEchoed) {
  constexpr struct {
    const char* text;
    const char* unit;
    const char* echo;
  } kRead[] = {
      {"", "", ""},
      {" \t\r\n", "", ""},
      {"Composite()End()", ".Composite().End()", ".Composite().End()"},
      {" .Composite()\n\t.End() ", ".Composite().End()", ".Composite().End()"},
      {".Composite()", "", ".Composite()"},
      // Any one character closes a statement.
      {".Nil(x.End(]", ".Nil().End()", ".Nil().End()"},
      {".Array().Nil().End().End()", ".Array().Nil().End().End()", ".Array().Nil().End().End()"},
      {".Composite().Property(\"a\").DWord(5).End().Trait('t').Nil().End().End()",
       ".Composite().Trait('t').Nil().End().Property('a').DWord(5).End().End()",
       ".Composite().Property(\"a\").Dword(5).End().Trait(\"t\").Nil().End().End()"},
  };
  for (const auto& item : kRead) {
    const TextOutcome outcome = ReadText(item.text);
    EXPECT_EQ(outcome.thrown.error, "nothing") << item.text;
    EXPECT_EQ(outcome.printed, item.unit) << item.text;
    EXPECT_EQ(outcome.echo, std::string(kPrefix) + item.echo + "\n") << item.text;
  }
}

// Each with its own .End(). An echo of null is the text of the statement and 'undefined'.
TEST(UnitText, ArgumentsAreReadAndEchoed) {
  constexpr struct {
    const char* text;
    const char* unit;
    const char* echo;
  } kRead[] = {
      // Text: either quote closes, anything opens, ) is an empty one.
      {".String(\"abc')", ".String('abc')", ".String(\"abc\")"},
      {".String(xabc\")", ".String('abc')", ".String(\"abc\")"},
      {".String()", ".String('')", ".String(\"\")"},
      {".String(\"\")", ".String('')", ".String(\"\")"},
      {".String(\"a.End(b)\")", ".String('a.End(b)')", ".String(\"a.End(b)\")"},
      // Words.
      {".Boolean(true)", ".Boolean(true)", nullptr},
      {".Boolean(false)", ".Boolean(false)", nullptr},
      {".Boolean()", ".Boolean(false)", nullptr},
      {".Boolean(0)", ".Boolean(true)", nullptr},
      {".Boolean(False)", ".Boolean(true)", nullptr},
      {".Boolean({", ".Boolean(true)", nullptr},
      {".Guid()", ".Guid(00000000-0000-0000-0000-000000000000)", nullptr},
      {".Guid({", ".Guid(00000000-0000-0000-0000-000000000000)", nullptr},
      {".Guid(6b29fc40-CA47-1067-b31d-00dd010662da)", ".Guid(6B29FC40-CA47-1067-B31D-00DD010662DA)",
       nullptr},
      {".Guid(1-2-3-0405-060708090A0Bzz)", ".Guid(00000001-0002-0003-0405-060708090A0B)", nullptr},
      // Numbers: a sign for all, cut to the width.
      {".Byte(300)", ".Byte(44)", nullptr},
      {".Byte(-1)", ".Byte(255)", nullptr},
      {".Byte()", ".Byte(0)", nullptr},
      {".SByte(200)", ".SByte(-56)", nullptr},
      {".Word(0x12345)", ".Word(9029)", nullptr},
      {".SWord(-32769)", ".SWord(32767)", nullptr},
      {".DWord(4294967301)", ".DWord(5)", ".Dword(5)"},
      {".DWord()", ".DWord(0)", ".DWord(0)"},
      {".DWord(0)", ".DWord(0)", ".Dword(0)"},
      {".DWord({", ".DWord(0)", ".Dword(0)"},
      {".DWord(-1)", ".DWord(4294967295)", ".Dword(4294967295)"},
      {".SDWord(4294967295)", ".SDWord(-1)", ".SDword(-1)"},
      {".SDWord()", ".SDWord(0)", ".SDWord(0)"},
      {".QWord(-1)", ".QWord(18446744073709551615)", ".QWord(18446744073709551615)"},
      {".QWord(10h)", ".QWord(16)", ".QWord(16)"},
      {".QWord()", ".QWord(0)", ".QWord(0)"},
      {".SQWord(-9223372036854775808)", ".SQWord(-9223372036854775808)",
       ".SQWord(-9223372036854775808)"},
      {".SQWord(18446744073709551615)", ".SQWord(-1)", ".SQWord(-1)"},
  };
  for (const auto& item : kRead) {
    const std::string text = item.text;
    const TextOutcome outcome = ReadText(text + ".End()");
    EXPECT_EQ(outcome.printed, std::string(item.unit).append(".End()")) << text;
    const std::string echo =
        item.echo != nullptr ? item.echo : text.substr(0, text.find('(')).append("('undefined')");
    EXPECT_EQ(outcome.echo, kPrefix + echo + ".End()\n") << text;
  }
}

// The echo shows what was read before the failure, and its line stays open.
TEST(UnitText, FailuresHavePlainCodesAndLeaveTheEchoOpen) {
  constexpr struct {
    const char* text;
    const char* error;
    const char* echo;
  } kRefused[] = {
      {".Composite().End(", "1: Input is over!", ".Composite().End()"},
      {".String(\"x\"", "1: Input is over!", ".String(\"x\")"},
      {".DWord(", "1: Input is over!", ""},
      {".Byte(", "1: Input is over!", ".Byte('undefined')"},
      {".Boolean(", "1: Input is over!", ".Boolean('undefined')"},
      {".String(", "1: Input is over!", ""},
      {".", "2: Expected symbol is not found!", ""},
      {"Composite", "2: Expected symbol is not found!", ""},
      {".Nil().End() x", "2: Expected symbol is not found!", ".Nil().End()"},
      {".DWord(12", "2: Expected symbol is not found!", ""},
      {".String(\"abc", "2: Expected symbol is not found!", ""},
      {".DWord(1F)", "3: Cannot convert '1F' to qword.", ""},
      {".QWord(-)", "3: Cannot convert '' to qword.", ""},
      {".QWord(18446744073709551616)", "3: Cannot convert '18446744073709551616' to qword.", ""},
      {".Byte(1_0)", "3: Cannot convert '1_0' to qword.", ".Byte('undefined')"},
      {".Word(--1)", "3: Cannot convert '-1' to qword.", ".Word('undefined')"},
      {". Composite()", "6: Statement ' Composite' is unknown.", ""},
      {".composite()", "6: Statement 'composite' is unknown.", ""},
      {".Double(1)", "6: Statement 'Double' is unknown.", ""},
      {"..Nil()", "6: Statement '.Nil' is unknown.", ""},
      {".{0}()", "6: Statement '{0}' is unknown.", ""},
      {"(", "6: Statement '' is unknown.", ""},
      {".Guid(1-2-3-4-5-6-7-8-9)", "7: Cannot convert '1-2-3-4-5-6-7-8-9' to Common::Guid.",
       ".Guid('undefined')"},
      {".SDWord(-x)", "8: Cannot convert '-x' to sqword.", ""},
      {".SQWord(-)", "8: Cannot convert '-' to sqword.", ""},
      {".SByte(h)", "8: Cannot convert 'h' to sqword.", ".SByte('undefined')"},
      {".SWord(0x1Fh)", "8: Cannot convert '0x1Fh' to sqword.", ".SWord('undefined')"},
  };
  for (const auto& item : kRefused) {
    const TextOutcome outcome = ReadText(item.text);
    EXPECT_EQ(outcome.thrown.error, std::string("Error ").append(item.error)) << item.text;
    EXPECT_FALSE(outcome.thrown.is_traced);
    EXPECT_EQ(outcome.echo, std::string(kPrefix) + item.echo) << item.text;
  }
}

// Text is taken byte by byte: "é" in UTF-8 is two characters, and a name encodes each of them
// again.
TEST(UnitText, BytesAreCharacters) {
  const std::string text = ".Composite().Property(\"\xC3\xA9\").String(\"\xC3\xA9\").End().End()";
  const TextOutcome outcome = ReadText(text);
  ASSERT_NE(outcome.unit, nullptr);
  EXPECT_EQ(outcome.echo, kPrefix + text + "\n");
  const Por::View::Property& property =
      Por::Util::GetProperty(std::as_const(*outcome.unit), Por::Name::FromUtf8("\xC3\x83\xC2\xA9"));
  EXPECT_EQ(Por::Util::GetValue<Common::String>(property.GetValue()), u"\u00C3\u00A9");
}

std::string Nested(int levels) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += ".Array()";
  for (int i = 0; i < levels; ++i) text += ".End()";
  return text;
}

TEST(UnitText, NestsAThousandLevels) {
  constexpr char kTooDeep[] = "ModuleError fa0001: POR: An internal error has occurred.";
  EXPECT_EQ(ReadText(Nested(1000)).printed, Nested(1000));
  EXPECT_EQ(ReadText(Nested(1001)).thrown.error, kTooDeep);
  std::string traits = ".Nil()";
  for (int i = 0; i < 1000; ++i) traits += ".Trait(\"t\").Nil()";
  EXPECT_EQ(ReadText(traits).thrown.error, kTooDeep);
}

TEST(UnitText, EveryTruncationEndsInAPlainCodeOrNoUnit) {
  const std::string whole =
      ".Composite().Trait(\"Is\").String('Task').End().Property(\"Id\")"
      ".Guid(6B29FC40-CA47-1067-B31D-00DD010662DA).End().Property(\"Runs\").Array().SWord(-1).End()"
      ".QWord(10h).End().End().Property(\"On\").Boolean(false).End().End()";
  ASSERT_NE(ReadText(whole).unit, nullptr);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const TextOutcome outcome = ReadText(whole.substr(0, size));
    EXPECT_EQ(outcome.unit, nullptr) << size;
    const std::string begin = outcome.thrown.error.substr(0, 8);
    EXPECT_TRUE(begin == "nothing" || begin == "Error 1:" || begin == "Error 2:") << size;
  }
}

TEST(UnitText, PassesThroughTheNextStage) {
  class Replacing : public UnitStage {
   public:
    Por::OwnedUnit Process(Por::OwnedUnit unit,
                           const Por::Construction::UnitFactory& factory) override {
      return unit == nullptr ? factory.CreateByte(1) : nullptr;
    }
  };
  std::ostringstream echo;
  UnitConstructionFormat format(echo, std::make_unique<Replacing>());
  format.SetTrace(false);
  InMemoryDataReader none(u"");
  InMemoryDataReader nil(u".Nil().End()");
  EXPECT_NE(format.Read(none, Factory()), nullptr);
  EXPECT_EQ(format.Read(nil, Factory()), nullptr);
  EXPECT_EQ(echo.str(), "") << "no echo without the trace";
}

TEST(InMemoryDataReader, GivesUtf8) {
  std::vector<unsigned char> bytes{1, 2, 3};
  InMemoryDataReader(u"a\u20AC").Read(bytes);
  EXPECT_EQ(Por::Streams::ToHex(bytes), "61e282ac");
  InMemoryDataReader(std::nullopt).Read(bytes);
  EXPECT_TRUE(bytes.empty());
}

// Printing.

std::string Print(Por::OwnedUnit unit) {
  return TestSupport::Utf8(UnitConstructorFormat::PrintUnit(*unit));
}

TEST(UnitPrinter, PrintsEveryKind) {
  const Common::Error error(18, "two\nlines", Common::LineTag());
  EXPECT_EQ(
      Print(Array(Nil(), Boolean(true), Boolean(false), Byte(255), SByte(-128), Word(65535),
                  SWord(-32768), DWord(4294967295), SDWord(-2147483647 - 1),
                  QWord(18446744073709551615u), SQWord(-9223372036854775807 - 1), Double(1.0 / 3),
                  Double(1e300), Double(-3), Blob({1, 2}), Guid({}), Text(u"it's \"{0}\""),
                  ErrorUnit({}), ErrorUnit(error), Array(), Composite())),
      ".Array()\n"
      "  .Nil().End()\n"
      "  .Boolean(true).End()\n"
      "  .Boolean(false).End()\n"
      "  .Byte(255).End()\n"
      "  .SByte(-128).End()\n"
      "  .Word(65535).End()\n"
      "  .SWord(-32768).End()\n"
      "  .DWord(4294967295).End()\n"
      "  .SDWord(-2147483648).End()\n"
      "  .QWord(18446744073709551615).End()\n"
      "  .SQWord(-9223372036854775808).End()\n"
      "  .Double(0.3333333333333333).End()\n"
      "  .Double(1e+300).End()\n"
      "  .Double(-3).End()\n"
      "  .Blob().End()\n"
      "  .Guid(00000000-0000-0000-0000-000000000000).End()\n"
      "  .String(\"it's \"{0}\"\").End()\n"
      "  .Error(Success).End()\n"
      "  .Error(Error 0x12: two\n"
      "| lines\n"
      "| line: 0x0\n"
      "| $module: objprobe_lxa64_43267).End()\n"
      "  .Array().End()\n"
      "  .Composite().End()\n"
      ".End()");
}

TEST(UnitPrinter, IndentsMembersAndPutsTraitsFirst) {
  EXPECT_EQ(Print(With(Composite("Runs", Array(DWord(1), DWord(2)), "Name", Text(u"daily"),
                                 "Retries", With(SDWord(-1), "Source", Nil()), "None", Composite()),
                       "Kind", Text(u"Task"))),
            ".Composite()\n"
            "  .Trait(\"Kind\").String(\"Task\").End()\n"
            "  .Property(\"Name\").String(\"daily\").End()\n"
            "  .Property(\"None\").Composite().End()\n"
            "  .Property(\"Retries\").SDWord(-1)\n"
            "    .Trait(\"Source\").Nil().End()\n"
            "  .End()\n"
            "  .Property(\"Runs\").Array()\n"
            "    .DWord(1).End()\n"
            "    .DWord(2).End()\n"
            "  .End()\n"
            ".End()");
  EXPECT_EQ(Print(With(Composite(), "t", Nil())),
            ".Composite()\n"
            "  .Trait(\"t\").Nil().End()\n"
            ".End()");
  EXPECT_EQ(Print(With(Array(Nil()), "t", Array(Nil()))),
            ".Array()\n"
            "  .Trait(\"t\").Array()\n"
            "    .Nil().End()\n"
            "  .End()\n"
            "  .Nil().End()\n"
            ".End()");
}

TEST(UnitPrinter, TakesAllStringsOfTheStyleAndPrintsOnce) {
  const Por::OwnedUnit unit = Composite("a", Composite("b", Text(u"c")));
  const UnitConstructorFormat::UnitTextStyle style{u"<", u">", u"-", u"|", u"'"};
  EXPECT_EQ(UnitConstructorFormat::PrintUnit(*unit, style),
            u"<.Composite()>|"
            u"<-.Property('a').Composite()>|"
            u"<--.Property('b').String('c').End()>|"
            u"<-.End()>|"
            u"<.End()>");
  UnitConstructorFormat::UnitConstructionTextFormat printer(*unit, 0, style);
  const Common::String first = printer.GetText();
  EXPECT_EQ(printer.GetText(), first);
}

TEST(UnitPrinter, WritesUtf16WithoutAMark) {
  std::vector<unsigned char> bytes;
  Por::Util::BlobWriter sink(bytes);
  UnitConstructionFormat().Write(*Nil(), sink);
  EXPECT_EQ(Por::Streams::ToHex(bytes), "2e004e0069006c00280029002e0045006e00640028002900");
}

}  // namespace
}  // namespace Utils
