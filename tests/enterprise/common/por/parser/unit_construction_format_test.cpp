#include "enterprise/common/por/parser/unit_construction_format.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>

#include "core/common/error.h"
#include "core/common/text.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_text_format.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/stream_support.h"

namespace Utils {
namespace {

// Bytes as they are.
class BytesReader : public DataReader {
 public:
  explicit BytesReader(std::string bytes) : bytes_(std::move(bytes)) {}
  void Read(std::vector<unsigned char>& bytes) override {
    bytes.assign(bytes_.begin(), bytes_.end());
  }

 private:
  std::string bytes_;
};

struct Outcome {
  Por::OwnedUnit unit;
  std::string printed;  // the unit on one line, "" for none
  std::string echo;
  std::uint32_t code = 0;
  std::string message;
  bool of_module = false;
};

Outcome Parse(const std::string& text) {
  Outcome outcome;
  std::ostringstream echo;
  UnitConstructionFormat format(echo);
  BytesReader reader(text);
  try {
    outcome.unit = format.Read(reader, *Por::GetStaticUnitFactory());
  } catch (const Common::Error& error) {
    outcome.code = error.GetCode();
    Common::ToUtf8(outcome.message, error.GetMessage().c_str());
    outcome.of_module = dynamic_cast<const Por::ModuleError*>(&error) != nullptr;
  }
  outcome.echo = echo.str();
  if (outcome.unit != nullptr) {
    UnitConstructorFormat::UnitTextStyle line;
    line.indent.clear();
    line.line_break.clear();
    const Common::String printed = UnitConstructorFormat::PrintUnit(*outcome.unit, line);
    Common::ToUtf8(outcome.printed, printed.c_str());
  }
  return outcome;
}

constexpr char kPrefix[] = "Interpret trace: ";

TEST(UnitText, IsReadAndEchoed) {
  constexpr struct {
    const char* text;
    const char* unit;
    const char* echo;
  } kRead[] = {
      {"", "", ""},
      {" \t\r\n", "", ""},
      {".Composite().End()", ".Composite().End()", ".Composite().End()"},
      {"Composite()End()", ".Composite().End()", ".Composite().End()"},
      {" .Composite()\n\t.End() ", ".Composite().End()", ".Composite().End()"},
      {".Composite()", "", ".Composite()"},
      {".Composite().End().DWord(1).End()", ".DWord(1).End()", ".Composite().End().Dword(1).End()"},
      // Any one character closes a statement.
      {".Nil(x.End(]", ".Nil().End()", ".Nil().End()"},
      {".Array().Nil().End().End()", ".Array().Nil().End().End()", ".Array().Nil().End().End()"},
      {".Composite().Property(\"a\").DWord(5).End().Trait('t').Nil().End().End()",
       ".Composite().Trait(\"t\").Nil().End().Property(\"a\").DWord(5).End().End()",
       ".Composite().Property(\"a\").Dword(5).End().Trait(\"t\").Nil().End().End()"},
      // Text: either quote closes, anything opens, ) is an empty one.
      {".String(\"abc').End()", ".String(\"abc\").End()", ".String(\"abc\").End()"},
      {".String(xabc\").End()", ".String(\"abc\").End()", ".String(\"abc\").End()"},
      {".String().End()", ".String(\"\").End()", ".String(\"\").End()"},
      {".String(\"\").End()", ".String(\"\").End()", ".String(\"\").End()"},
      {".String(\"a.End(b)\").End()", ".String(\"a.End(b)\").End()", ".String(\"a.End(b)\").End()"},
      // Words.
      {".Boolean(true).End()", ".Boolean(true).End()", ".Boolean('undefined').End()"},
      {".Boolean(false).End()", ".Boolean(false).End()", ".Boolean('undefined').End()"},
      {".Boolean().End()", ".Boolean(false).End()", ".Boolean('undefined').End()"},
      {".Boolean(0).End()", ".Boolean(true).End()", ".Boolean('undefined').End()"},
      {".Boolean(False).End()", ".Boolean(true).End()", ".Boolean('undefined').End()"},
      {".Boolean({.End()", ".Boolean(true).End()", ".Boolean('undefined').End()"},
      {".Guid().End()", ".Guid(00000000-0000-0000-0000-000000000000).End()",
       ".Guid('undefined').End()"},
      {".Guid({.End()", ".Guid(00000000-0000-0000-0000-000000000000).End()",
       ".Guid('undefined').End()"},
      {".Guid(6b29fc40-CA47-1067-b31d-00dd010662da).End()",
       ".Guid(6B29FC40-CA47-1067-B31D-00DD010662DA).End()", ".Guid('undefined').End()"},
      {".Guid(1-2-3-0405-060708090A0Bzz).End()",
       ".Guid(00000001-0002-0003-0405-060708090A0B).End()", ".Guid('undefined').End()"},
      // Numbers: three forms, a sign for all, cut to the width.
      {".Byte(300).End()", ".Byte(44).End()", ".Byte('undefined').End()"},
      {".Byte(-1).End()", ".Byte(255).End()", ".Byte('undefined').End()"},
      {".Byte().End()", ".Byte(0).End()", ".Byte('undefined').End()"},
      {".SByte(200).End()", ".SByte(-56).End()", ".SByte('undefined').End()"},
      {".Word(0x12345).End()", ".Word(9029).End()", ".Word('undefined').End()"},
      {".SWord(-32769).End()", ".SWord(32767).End()", ".SWord('undefined').End()"},
      {".DWord(4294967301).End()", ".DWord(5).End()", ".Dword(5).End()"},
      {".DWord().End()", ".DWord(0).End()", ".DWord(0).End()"},
      {".DWord(0).End()", ".DWord(0).End()", ".Dword(0).End()"},
      {".DWord({.End()", ".DWord(0).End()", ".Dword(0).End()"},
      {".DWord(-1).End()", ".DWord(4294967295).End()", ".Dword(4294967295).End()"},
      {".SDWord(4294967295).End()", ".SDWord(-1).End()", ".SDword(-1).End()"},
      {".SDWord().End()", ".SDWord(0).End()", ".SDWord(0).End()"},
      {".QWord(-1).End()", ".QWord(18446744073709551615).End()",
       ".QWord(18446744073709551615).End()"},
      {".QWord(10h).End()", ".QWord(16).End()", ".QWord(16).End()"},
      {".QWord(0X1f).End()", ".QWord(31).End()", ".QWord(31).End()"},
      {".QWord().End()", ".QWord(0).End()", ".QWord(0).End()"},
      {".SQWord(-9223372036854775808).End()", ".SQWord(-9223372036854775808).End()",
       ".SQWord(-9223372036854775808).End()"},
      {".SQWord(18446744073709551615).End()", ".SQWord(-1).End()", ".SQWord(-1).End()"},
      {".SQWord().End()", ".SQWord(0).End()", ".SQWord(0).End()"},
  };
  for (const auto& item : kRead) {
    const Outcome outcome = Parse(item.text);
    EXPECT_EQ(outcome.code, 0u) << item.text << ": " << outcome.message;
    EXPECT_EQ(outcome.printed, item.unit) << item.text;
    EXPECT_EQ(outcome.echo, std::string(kPrefix) + item.echo + "\n") << item.text;
  }
}

// The echo shows what was read before the failure, and its line stays open.
TEST(UnitText, FailuresHavePlainCodesAndLeaveTheEchoOpen) {
  constexpr struct {
    const char* text;
    std::uint32_t code;
    const char* message;
    const char* echo;
  } kRefused[] = {
      {".Composite().End(", 1, "Input is over!", ".Composite().End()"},
      {".String(\"x\"", 1, "Input is over!", ".String(\"x\")"},
      {".DWord(", 1, "Input is over!", ""},
      {".Byte(", 1, "Input is over!", ".Byte('undefined')"},
      {".Boolean(", 1, "Input is over!", ".Boolean('undefined')"},
      {".String(", 1, "Input is over!", ""},
      {".", 2, "Expected symbol is not found!", ""},
      {"Composite", 2, "Expected symbol is not found!", ""},
      {".Nil().End() x", 2, "Expected symbol is not found!", ".Nil().End()"},
      {".DWord(12", 2, "Expected symbol is not found!", ""},
      {".Word(12", 2, "Expected symbol is not found!", ".Word('undefined')"},
      {".String(\"abc", 2, "Expected symbol is not found!", ""},
      {".String(\"", 2, "Expected symbol is not found!", ""},
      {".DWord(1F)", 3, "Cannot convert '1F' to qword.", ""},
      {".DWord(-x)", 3, "Cannot convert 'x' to qword.", ""},
      {".QWord(-)", 3, "Cannot convert '' to qword.", ""},
      {".QWord(0x)", 3, "Cannot convert '0x' to qword.", ""},
      {".QWord(18446744073709551616)", 3, "Cannot convert '18446744073709551616' to qword.", ""},
      {".Byte(1_0)", 3, "Cannot convert '1_0' to qword.", ".Byte('undefined')"},
      {".Word(--1)", 3, "Cannot convert '-1' to qword.", ".Word('undefined')"},
      {". Composite()", 6, "Statement ' Composite' is unknown.", ""},
      {".composite()", 6, "Statement 'composite' is unknown.", ""},
      {".Double(1)", 6, "Statement 'Double' is unknown.", ""},
      {".Blob()", 6, "Statement 'Blob' is unknown.", ""},
      {"..Nil()", 6, "Statement '.Nil' is unknown.", ""},
      {".{0}()", 6, "Statement '{0}' is unknown.", ""},
      {"(", 6, "Statement '' is unknown.", ""},
      {".Guid(1-2-3-4-5-6-7-8-9)", 7, "Cannot convert '1-2-3-4-5-6-7-8-9' to Common::Guid.",
       ".Guid('undefined')"},
      {".Guid(12)", 7, "Cannot convert '12' to Common::Guid.", ".Guid('undefined')"},
      {".SDWord(-x)", 8, "Cannot convert '-x' to sqword.", ""},
      {".SQWord(-)", 8, "Cannot convert '-' to sqword.", ""},
      {".SByte(h)", 8, "Cannot convert 'h' to sqword.", ".SByte('undefined')"},
      {".SWord(0x1Fh)", 8, "Cannot convert '0x1Fh' to sqword.", ".SWord('undefined')"},
  };
  for (const auto& item : kRefused) {
    const Outcome outcome = Parse(item.text);
    EXPECT_EQ(outcome.code, item.code) << item.text;
    EXPECT_EQ(outcome.message, item.message) << item.text;
    EXPECT_EQ(outcome.echo, std::string(kPrefix) + item.echo) << item.text;
    EXPECT_FALSE(outcome.of_module) << item.text;
  }
}

TEST(UnitText, FailuresOfTheBuilderPassThrough) {
  constexpr struct {
    const char* text;
    std::uint32_t code;
  } kRefused[] = {
      {".Property(\"a\")", 0xFA000B},
      {".Composite().Property(\"a\").End()", 0xFA000B},
      {".DWord(1).Property(\"a\")", 0xFA000A},
      {".Composite().Property(\"a\").DWord(1).End().Property(\"a\").String(\"x\")", 0xFA0011},
  };
  for (const auto& item : kRefused) EXPECT_EQ(Parse(item.text).code, item.code) << item.text;
}

// Text is taken byte by byte: "é" in UTF-8 is two characters, and a name encodes each of them
// again.
TEST(UnitText, BytesAreCharacters) {
  const Outcome outcome =
      Parse(".Composite().Property(\"\xC3\xA9\").String(\"\xC3\xA9\").End().End()");
  ASSERT_NE(outcome.unit, nullptr);
  EXPECT_EQ(outcome.echo,
            std::string(kPrefix) +
                ".Composite().Property(\"\xC3\xA9\").String(\"\xC3\xA9\").End().End()\n");
  const Por::View::Property* const property = Por::Util::FindProperty(
      std::as_const(*outcome.unit), Por::Name::FromUtf8("\xC3\x83\xC2\xA9"));
  ASSERT_NE(property, nullptr);
  EXPECT_EQ(Por::Util::GetValue<Common::String>(property->GetValue()), u"\u00C3\u00A9");
}

std::string Nested(int levels) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += ".Array()";
  for (int i = 0; i < levels; ++i) text += ".End()";
  return text;
}

TEST(UnitText, NestsAThousandLevels) {
  EXPECT_EQ(Parse(Nested(1000)).printed, Nested(1000));
  const Outcome deeper = Parse(Nested(1001));
  EXPECT_EQ(deeper.code, 0xFA0001u);
  EXPECT_EQ(deeper.message, "POR: An internal error has occurred.");
  std::string traits = ".Nil()";
  for (int i = 0; i < 1000; ++i) traits += ".Trait(\"t\").Nil()";
  EXPECT_EQ(Parse(traits).code, 0xFA0001u);
}

TEST(UnitText, EveryTruncationEndsInAPlainCodeOrNoUnit) {
  const std::string whole =
      ".Composite().Trait(\"Is\").String('Task').End().Property(\"Id\")"
      ".Guid(6B29FC40-CA47-1067-B31D-00DD010662DA).End().Property(\"Runs\").Array().SWord(-1).End()"
      ".QWord(10h).End().End().Property(\"On\").Boolean(false).End().End()";
  ASSERT_NE(Parse(whole).unit, nullptr);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const Outcome outcome = Parse(whole.substr(0, size));
    EXPECT_EQ(outcome.unit, nullptr) << size;
    EXPECT_TRUE(outcome.code <= 2) << size << ": " << outcome.message;
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
  InMemoryDataReader none(u"");
  InMemoryDataReader nil(u".Nil().End()");
  EXPECT_NE(format.Read(none, *Por::GetStaticUnitFactory()), nullptr);
  EXPECT_EQ(format.Read(nil, *Por::GetStaticUnitFactory()), nullptr);
}

TEST(UnitText, IsNotEchoedWithoutTheTrace) {
  std::ostringstream echo;
  UnitConstructionFormat format(echo);
  format.SetTrace(false);
  InMemoryDataReader reader(u".Nil().End()");
  EXPECT_NE(format.Read(reader, *Por::GetStaticUnitFactory()), nullptr);
  EXPECT_EQ(echo.str(), "");
}

TEST(InMemoryDataReader, GivesUtf8) {
  std::vector<unsigned char> bytes{1, 2, 3};
  InMemoryDataReader(u"a\u20AC").Read(bytes);
  EXPECT_EQ(Por::Streams::ToHex(bytes), "61e282ac");
  InMemoryDataReader(std::nullopt).Read(bytes);
  EXPECT_TRUE(bytes.empty());
}

// Printing.

using Por::Util::UnitConstructor;

std::string Print(void (*calls)(const UnitConstructor&)) {
  std::string text;
  Common::ToUtf8(text, UnitConstructorFormat::PrintUnit(*Por::Streams::Make(calls)).c_str());
  return text;
}

TEST(UnitPrinter, PrintsEveryKind) {
  EXPECT_EQ(Print([](const UnitConstructor& u) {
              u.Array().Nil().End().Boolean(true).End().Boolean(false).End();
              u.Byte(255).End().SByte(-128).End().Word(65535).End().SWord(-32768).End();
              u.DWord(4294967295).End().SDWord(-2147483647 - 1).End();
              u.QWord(18446744073709551615u).End().SQWord(-9223372036854775807 - 1).End();
              u.Double(0.1).End().Double(1e300).End().Double(-3).End();
              u.Blob({1, 2}).End().Guid(Common::Guid()).End();
              u.String(u"it's \"{0}\"").End().Error(Common::Error()).End();
              u.Error(Common::Error(18, "two\nlines", Common::LineTag())).End();
              u.Array().End().Composite().End().End();
            }),
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
            "  .Double(0.1).End()\n"
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
  EXPECT_EQ(Print([](const UnitConstructor& u) {
              u.Composite().Property("Runs").Array().DWord(1).End().DWord(2).End().End();
              u.Property("Name").String(u"daily").End().Trait("Kind").String(u"Task").End();
              u.Property("Retries").SDWord(-1).Trait("Source").Nil().End().End();
              u.Property("None").Composite().End().End();
            }),
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
  EXPECT_EQ(Print([](const UnitConstructor& u) { u.Composite().Trait("t").Nil().End().End(); }),
            ".Composite()\n"
            "  .Trait(\"t\").Nil().End()\n"
            ".End()");
  EXPECT_EQ(Print([](const UnitConstructor& u) {
              u.Array().Nil().End().Trait("t").Array().Nil().End().End().End();
            }),
            ".Array()\n"
            "  .Trait(\"t\").Array()\n"
            "    .Nil().End()\n"
            "  .End()\n"
            "  .Nil().End()\n"
            ".End()");
}

TEST(UnitPrinter, TakesAllStringsOfTheStyle) {
  const Por::OwnedUnit unit = Por::Streams::Make([](const UnitConstructor& u) {
    u.Composite().Property("a").Composite().Property("b").String(u"c").End().End().End();
  });
  const UnitConstructorFormat::UnitTextStyle style{u"<", u">", u"-", u"|", u"'"};
  EXPECT_TRUE(UnitConstructorFormat::PrintUnit(*unit, style) ==
              u"<.Composite()>|"
              u"<-.Property('a').Composite()>|"
              u"<--.Property('b').String('c').End()>|"
              u"<-.End()>|"
              u"<.End()>");
}

TEST(UnitPrinter, WritesUtf16WithoutAMark) {
  class Sink : public Por::Util::BinaryDataConsumer {
   public:
    std::vector<unsigned char> bytes;
    void Consume(const unsigned char* data, std::uint32_t length) override {
      bytes.insert(bytes.end(), data, data + length);
    }
  } sink;
  UnitConstructionFormat().Write(
      *Por::Streams::Make([](const UnitConstructor& u) { u.Nil().End(); }), sink);
  EXPECT_EQ(Por::Streams::ToHex(sink.bytes), "2e004e0069006c00280029002e0045006e00640028002900");
}

TEST(UnitPrinter, PrintsOnceOnly) {
  const Por::OwnedUnit unit =
      Por::Streams::Make([](const UnitConstructor& u) { u.Byte(1).Trait("t").Nil().End().End(); });
  const UnitConstructorFormat::UnitTextStyle style;
  UnitConstructorFormat::UnitConstructionTextFormat printer(*unit, 0, style);
  const Common::String first = printer.GetText();
  EXPECT_TRUE(printer.GetText() == first);
}

}  // namespace
}  // namespace Utils
