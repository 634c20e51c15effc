#pragma once

#include "core/common/string.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/value.h"

namespace UnitConstructorFormat {

// The strings that shape printed text.
struct UnitTextStyle {
  Common::String line_prefix;         // before every nested line, closing line and the whole
  Common::String line_suffix;         // before every line break and after the whole
  Common::String indent = u"  ";      // once per nesting level
  Common::String line_break = u"\n";  // ends a line
  Common::String quote = u"\"";       // around names and strings
};

// Prints one unit; it receives the unit's value, then its traits and its members or elements.
class UnitConstructionTextFormat final : public Por::ItemProcessor<const Por::View::Trait>,
                                         public Por::ItemProcessor<const Por::View::Property>,
                                         public Por::ItemProcessor<const Por::View::Unit> {
 public:
  // Unit and style are borrowed. `depth` is 0 at the root.
  UnitConstructionTextFormat(const Por::View::Unit& unit, unsigned int depth,
                             const UnitTextStyle& style);

  // The text, from the head of the value to ".End()"; made by the first call.
  const Common::String& GetText();

  // Nested lines. They never stop a walk.
  bool Process(const Por::View::Trait& trait) override;
  bool Process(const Por::View::Property& property) override;
  bool Process(const Por::View::Unit& element) override;

  // The visited value: its head and, for an array or composite, the traits and the members.
#define POR_PRINT(index, Word, Value, Argument) void operator()(const Por::View::Value& value);
  POR_VALUE_KINDS(POR_PRINT)
#undef POR_PRINT

 private:
  // Of a nested item, which prints behind its parent's text.
  UnitConstructionTextFormat(const Por::View::Unit& unit, const UnitConstructionTextFormat& parent);

  void Print();
  void AppendHead(const char16_t* word, const Common::String& argument);
  void WriteTraits();
  // A null `word` is an element, which has no head.
  void WriteNested(const char16_t* word, const Common::String& name, const Por::View::Unit& unit);
  void EndLine();
  void AppendIndent(unsigned int levels);

  const Por::View::Unit* unit_;
  unsigned int depth_;
  const UnitTextStyle* style_;
  bool multiline_ = false;  // a nested line was written, and so the line of the head ended
  bool traits_pending_ = true;
  Common::String text_;  // of the root; nested items leave theirs empty
  Common::String* out_;  // the root's text
};

// The whole text of a unit: the style's prefix, the unit, the style's suffix.
Common::String PrintUnit(const Por::View::Unit& unit, const UnitTextStyle& style = UnitTextStyle());

}  // namespace UnitConstructorFormat
