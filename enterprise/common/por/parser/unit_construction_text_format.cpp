#include "enterprise/common/por/parser/unit_construction_text_format.h"

#include <cstdio>
#include <string>

#include "core/common/error.h"
#include "core/common/number_text.h"
#include "enterprise/common/por/visitor.h"

namespace UnitConstructorFormat {
namespace {

using Por::View::ComplexValue;
using Por::View::ScalarValue;

Common::String Widen(const std::string& text) {
  return Common::String(text.begin(), text.end());
}

}  // namespace

UnitConstructionTextFormat::UnitConstructionTextFormat(const Por::View::Unit& unit,
                                                       unsigned int depth,
                                                       const UnitTextStyle& style)
    : unit_(&unit), depth_(depth), style_(&style), out_(&text_) {}

UnitConstructionTextFormat::UnitConstructionTextFormat(const Por::View::Unit& unit,
                                                       const UnitConstructionTextFormat& parent)
    : unit_(&unit), depth_(parent.depth_ + 1), style_(parent.style_), out_(parent.out_) {}

const Common::String& UnitConstructionTextFormat::GetText() {
  if (text_.empty()) Print();
  return text_;
}

void UnitConstructionTextFormat::Print() {
  Por::View::Detail::UnitVisitorAdaptor<UnitConstructionTextFormat> visitor(*this);
  unit_->Accept(visitor);
  WriteTraits();
  if (multiline_) {
    *out_ += style_->line_prefix;
    AppendIndent(depth_);
  }
  *out_ += u".End()";
}

bool UnitConstructionTextFormat::Process(const Por::View::Trait& trait) {
  traits_pending_ = false;
  WriteNested(u"Trait", trait.GetName().ToString(), trait.GetValue());
  return false;
}

bool UnitConstructionTextFormat::Process(const Por::View::Property& property) {
  WriteNested(u"Property", property.GetName().ToString(), property.GetValue());
  return false;
}

bool UnitConstructionTextFormat::Process(const Por::View::Unit& element) {
  WriteNested(nullptr, Common::String(), element);
  return false;
}

void UnitConstructionTextFormat::operator()(const Por::View::NilValue&) {
  AppendHead(u"Nil", Common::String());
}

void UnitConstructionTextFormat::operator()(const ScalarValue<bool>& value) {
  AppendHead(u"Boolean", value.Get() ? u"true" : u"false");
}

#define POR_PRINT_NUMBER(Word, Type)                                            \
  void UnitConstructionTextFormat::operator()(const ScalarValue<Type>& value) { \
    AppendHead(u"" #Word, Widen(std::to_string(value.Get())));                  \
  }
POR_PRINT_NUMBER(Byte, unsigned char)
POR_PRINT_NUMBER(SByte, signed char)
POR_PRINT_NUMBER(Word, unsigned short)
POR_PRINT_NUMBER(SWord, short)
POR_PRINT_NUMBER(DWord, unsigned int)
POR_PRINT_NUMBER(SDWord, int)
POR_PRINT_NUMBER(QWord, unsigned long long)
POR_PRINT_NUMBER(SQWord, long long)
#undef POR_PRINT_NUMBER

void UnitConstructionTextFormat::operator()(const ScalarValue<double>& value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.16g", value.Get());
  AppendHead(u"Double", Widen(buffer));
}

void UnitConstructionTextFormat::operator()(const ComplexValue<std::vector<unsigned char>>&) {
  AppendHead(u"Blob", Common::String());
}

void UnitConstructionTextFormat::operator()(const ComplexValue<Common::Guid>& value) {
  AppendHead(u"Guid", Widen(Common::GuidToString(value.Get())));
}

void UnitConstructionTextFormat::operator()(const ComplexValue<Common::String>& value) {
  AppendHead(u"String", style_->quote + value.Get() + style_->quote);
}

void UnitConstructionTextFormat::operator()(const ComplexValue<Common::Error>& value) {
  AppendHead(u"Error", value.Get().ToString());
}

void UnitConstructionTextFormat::operator()(const Por::View::ArrayValue& value) {
  AppendHead(u"Array", Common::String());
  WriteTraits();
  value.ForEach(*this);
}

void UnitConstructionTextFormat::operator()(const Por::View::CompositeValue& value) {
  AppendHead(u"Composite", Common::String());
  WriteTraits();
  value.ForEach(*this);
}

void UnitConstructionTextFormat::AppendHead(const char16_t* word, const Common::String& argument) {
  *out_ += u'.';
  *out_ += word;
  *out_ += u'(';
  *out_ += argument;
  *out_ += u')';
}

// A unit's traits are written once, wherever they are asked for first.
void UnitConstructionTextFormat::WriteTraits() {
  if (traits_pending_) unit_->GetTraits().ForEach(*this);
}

// The first nested line ends the line of the head.
void UnitConstructionTextFormat::WriteNested(const char16_t* word, const Common::String& name,
                                             const Por::View::Unit& unit) {
  if (!multiline_) EndLine();
  multiline_ = true;
  *out_ += style_->line_prefix;
  AppendIndent(depth_ + 1);
  if (word != nullptr) AppendHead(word, style_->quote + name + style_->quote);
  UnitConstructionTextFormat(unit, *this).Print();
  EndLine();
}

void UnitConstructionTextFormat::EndLine() {
  *out_ += style_->line_suffix;
  *out_ += style_->line_break;
}

void UnitConstructionTextFormat::AppendIndent(unsigned int levels) {
  for (unsigned int i = 0; i < levels; ++i) *out_ += style_->indent;
}

Common::String PrintUnit(const Por::View::Unit& unit, const UnitTextStyle& style) {
  Common::String text = style.line_prefix;
  text += UnitConstructionTextFormat(unit, 0, style).GetText();
  text += style.line_suffix;
  return text;
}

}  // namespace UnitConstructorFormat
