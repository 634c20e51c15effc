#include "enterprise/common/por/parser/statement_table.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>

#include "core/common/error.h"
#include "core/common/message_table.h"
#include "core/common/number_text.h"
#include "enterprise/common/por/parser/unit_construction_format.h"

namespace Utils {
namespace {

using Por::Util::UnitConstructor;

constexpr Common::SourceFile kSource{"enterprise/common/por/parser/statement_table"};

[[noreturn]] void ThrowWithText(std::uint32_t code, const char16_t* pattern,
                                std::u16string_view argument, const Common::LineTag& tag) {
  Common::String text;
  Common::FormatMessage(text, Common::String(pattern), Common::String(argument));
  throw Common::Error(code, text.c_str(), tag);
}

// One byte a character.
std::string Narrow(std::u16string_view text) {
  std::string bytes(text.size(), '\0');
  std::transform(text.begin(), text.end(), bytes.begin(),
                 [](char16_t c) { return static_cast<char>(c & 0xFF); });
  return bytes;
}

bool IsWordCharacter(char16_t c) {
  return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') ||
         c == u'-' || c == u'_';
}

bool IsArgumentEmpty(const StatementInput& input) {
  return input.GetInput() == u')';
}

std::u16string_view TakeWord(StatementInput& input) {
  if (IsArgumentEmpty(input)) return {};
  return input.TakeUpTo(input.GetNext([](char16_t c) { return !IsWordCharacter(c); }));
}

// The first character is taken for the opening quote unseen; either quote closes.
Common::String TakeQuotedText(StatementInput& input) {
  if (IsArgumentEmpty(input)) return {};
  input.Skip();
  Common::String text(
      input.TakeUpTo(input.GetNext([](char16_t c) { return c == u'"' || c == u'\''; })));
  input.Skip();
  return text;
}

// The number of `word` behind its sign, in two's complement if the sign is there.
bool ParseSigned(std::uint64_t& number, std::u16string_view word) {
  const bool negative = word.front() == u'-';
  const Common::String digits(word.substr(negative ? 1 : 0));
  if (!Common::ParseNumber(&number, digits.c_str(), 10)) return false;
  if (negative) number = 0 - number;
  return true;
}

// The message shows the word without its sign.
std::uint64_t TakeQwordValue(StatementInput& input) {
  const std::u16string_view word = TakeWord(input);
  if (word.empty()) return 0;
  std::uint64_t number = 0;
  if (!ParseSigned(number, word)) {
    ThrowWithText(kNotAQword, u"Cannot convert '{0}' to qword.",
                  word.substr(word.front() == u'-' ? 1 : 0), kSource.At("TakeQwordValue", 10));
  }
  return number;
}

// The message shows the whole word.
std::int64_t TakeSQwordValue(StatementInput& input) {
  const std::u16string_view word = TakeWord(input);
  if (word.empty()) return 0;
  std::uint64_t number = 0;
  if (!ParseSigned(number, word)) {
    ThrowWithText(kNotASqword, u"Cannot convert '{0}' to sqword.", word,
                  kSource.At("TakeSQwordValue", 20));
  }
  return static_cast<std::int64_t>(number);
}

Common::Guid TakeGuid(StatementInput& input) {
  const std::u16string_view word = TakeWord(input);
  Common::Guid guid;
  if (!word.empty() && !Common::GuidFromString(guid, Narrow(word).c_str())) {
    ThrowWithText(kNotAGuid, u"Cannot convert '{0}' to Common::Guid.", word,
                  kSource.At("TakeGuid", 30));
  }
  return guid;
}

void EchoQuoted(std::ostream& echo, const char* head, std::u16string_view text) {
  echo << head << "(\"" << Narrow(text) << "\")";
}

// Statements without an argument.
template <UnitConstructor (UnitConstructor::*Call)() const>
UnitConstructor RunPlain(const UnitConstructor& unit, std::ostream& echo, const char* text) {
  echo << text;
  return (unit.*Call)();
}

UnitConstructor RunComposite(StatementInput&, const UnitConstructor& unit, std::ostream& echo) {
  return RunPlain<&UnitConstructor::Composite>(unit, echo, ".Composite()");
}
UnitConstructor RunArray(StatementInput&, const UnitConstructor& unit, std::ostream& echo) {
  return RunPlain<&UnitConstructor::Array>(unit, echo, ".Array()");
}
UnitConstructor RunNil(StatementInput&, const UnitConstructor& unit, std::ostream& echo) {
  return RunPlain<&UnitConstructor::Nil>(unit, echo, ".Nil()");
}
UnitConstructor RunEnd(StatementInput&, const UnitConstructor& unit, std::ostream& echo) {
  return RunPlain<&UnitConstructor::End>(unit, echo, ".End()");
}

UnitConstructor RunProperty(StatementInput& input, const UnitConstructor& unit,
                            std::ostream& echo) {
  const Common::String name = TakeQuotedText(input);
  EchoQuoted(echo, ".Property", name);
  return unit.Property(Por::Name(name));
}
UnitConstructor RunTrait(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  const Common::String name = TakeQuotedText(input);
  EchoQuoted(echo, ".Trait", name);
  return unit.Trait(Por::Name(name));
}
UnitConstructor RunString(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  const Common::String text = TakeQuotedText(input);
  EchoQuoted(echo, ".String", text);
  return unit.String(text);
}

// These are echoed before their argument is read, and so without it.
UnitConstructor RunBoolean(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  echo << ".Boolean('undefined')";
  return unit.Boolean(!IsArgumentEmpty(input) && TakeWord(input) != u"false");
}
UnitConstructor RunGuid(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  echo << ".Guid('undefined')";
  return unit.Guid(TakeGuid(input));
}
UnitConstructor RunByte(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  echo << ".Byte('undefined')";
  return unit.Byte(static_cast<unsigned char>(TakeQwordValue(input)));
}
UnitConstructor RunSByte(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  echo << ".SByte('undefined')";
  return unit.SByte(static_cast<signed char>(TakeSQwordValue(input)));
}
UnitConstructor RunWord(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  echo << ".Word('undefined')";
  return unit.Word(static_cast<unsigned short>(TakeQwordValue(input)));
}
UnitConstructor RunSWord(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  echo << ".SWord('undefined')";
  return unit.SWord(static_cast<short>(TakeSQwordValue(input)));
}

// These are echoed with their value; an argument that is not there has a text of its own, in
// another spelling for two of them.
template <class T, UnitConstructor (UnitConstructor::*Call)(T) const, class Take>
UnitConstructor RunNumber(StatementInput& input, const UnitConstructor& unit, std::ostream& echo,
                          Take take, const char* head, const char* empty) {
  if (IsArgumentEmpty(input)) {
    echo << empty;
    return (unit.*Call)(0);
  }
  const T number = static_cast<T>(take(input));
  echo << head << std::to_string(number) << ")";
  return (unit.*Call)(number);
}

UnitConstructor RunDWord(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  return RunNumber<unsigned int, &UnitConstructor::DWord>(input, unit, echo, TakeQwordValue,
                                                          ".Dword(", ".DWord(0)");
}
UnitConstructor RunSDWord(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  return RunNumber<int, &UnitConstructor::SDWord>(input, unit, echo, TakeSQwordValue, ".SDword(",
                                                  ".SDWord(0)");
}
UnitConstructor RunQWord(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  return RunNumber<unsigned long long, &UnitConstructor::QWord>(input, unit, echo, TakeQwordValue,
                                                                ".QWord(", ".QWord(0)");
}
UnitConstructor RunSQWord(StatementInput& input, const UnitConstructor& unit, std::ostream& echo) {
  return RunNumber<long long, &UnitConstructor::SQWord>(input, unit, echo, TakeSQwordValue,
                                                        ".SQWord(", ".SQWord(0)");
}

struct Statement {
  std::u16string_view name;
  StatementHandler handler;
};

constexpr bool NameLess(const Statement& a, const Statement& b) {
  return a.name < b.name;
}

// In the order of their names.
constexpr Statement kStatements[] = {
    {u"Array", RunArray},         {u"Boolean", RunBoolean}, {u"Byte", RunByte},
    {u"Composite", RunComposite}, {u"DWord", RunDWord},     {u"End", RunEnd},
    {u"Guid", RunGuid},           {u"Nil", RunNil},         {u"Property", RunProperty},
    {u"QWord", RunQWord},         {u"SByte", RunSByte},     {u"SDWord", RunSDWord},
    {u"SQWord", RunSQWord},       {u"SWord", RunSWord},     {u"String", RunString},
    {u"Trait", RunTrait},         {u"Word", RunWord},
};
static_assert(std::size(kStatements) == 17);
static_assert(std::is_sorted(std::begin(kStatements), std::end(kStatements), NameLess));

}  // namespace

StatementHandler StatementTable::GetStatement(std::u16string_view name) {
  const Statement* const found = std::lower_bound(std::begin(kStatements), std::end(kStatements),
                                                  Statement{name, nullptr}, NameLess);
  if (found == std::end(kStatements) || found->name != name) {
    ThrowWithText(kUnknownStatement, u"Statement '{0}' is unknown.", name,
                  kSource.At("GetStatement", 40));
  }
  return found->handler;
}

}  // namespace Utils
