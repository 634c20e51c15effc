#include "enterprise/common/dml/tools/objprobe/unit_printer.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "core/common/number_text.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"

namespace Por::Util {

namespace {

using ObjProbe::Output;

// The type column of the scalar values.
constexpr char Letter(bool) {
  return 'b';
}
constexpr char Letter(unsigned char) {
  return 'h';
}
constexpr char Letter(signed char) {
  return 'a';
}
constexpr char Letter(unsigned short) {
  return 't';
}
constexpr char Letter(short) {
  return 's';
}
constexpr char Letter(unsigned int) {
  return 'j';
}
constexpr char Letter(int) {
  return 'i';
}
constexpr char Letter(unsigned long long) {
  return 'y';
}
constexpr char Letter(long long) {
  return 'x';
}
constexpr char Letter(double) {
  return 'd';
}

void AppendScalar(Output& output, bool value) {
  output.Append(value ? '1' : '0');
}
void AppendScalar(Output& output, double value) {
  output.AppendDouble(value);
}
template <std::integral T>
void AppendScalar(Output& output, T value) {
  output.AppendDecimal(value);
}

// What is still to be printed, the next piece on top.
struct Pending {
  // The value to print; null for the end of a trait.
  const View::Unit* unit = nullptr;
  const char* name = nullptr;  // null: `index` is the name
  unsigned long long index = 0;
  std::size_t indent = 0;
  bool is_trait = false;  // a trait's value, or its end
  bool ends_lines = true;
  bool repeats_indent = false;  // end of a trait whose value has members
};

// Prints the type column and the value of the unit that it visits, and collects the members.
class ValuePrinter final : public View::UnitReader {
 public:
  // Room for the pieces of a usual object, so that they cost one allocation.
  explicit ValuePrinter(Output& output) : output_(output) { pending_.reserve(64); }

  // Prints the whole tree.
  void Print(const View::Unit& root, std::size_t indent) {
    Pending first;
    first.unit = &root;
    first.name = "Root";
    first.indent = indent;
    pending_.push_back(first);
    while (!pending_.empty()) {
      current_ = pending_.back();
      pending_.pop_back();
      if (current_.unit != nullptr) {
        PrintValue();
      } else {
        PrintTraitEnd();
      }
    }
  }

  void Visit(const View::NilValue&) override {
    output_.Append(" (NIL)");
    EndHead();
  }
#define POR_VISIT(index, Word, Value, Argument)   \
  void Visit(const View::Value& value) override { \
    PrintScalar(value.Get());                     \
  }
  POR_SCALAR_KINDS(POR_VISIT)
#undef POR_VISIT
  void Visit(const View::ComplexValue<std::vector<unsigned char>>& value) override {
    output_.Append(" (Blob) Size = ");
    output_.AppendDecimal(value.Get().size());
    EndHead();
  }
  void Visit(const View::ComplexValue<Common::Guid>& value) override {
    char text[37];
    Common::GuidToChars(text, value.Get());
    output_.Append(" (Common::Guid) = ");
    output_.Append(std::string_view(text, 36));
    EndHead();
  }
  void Visit(const View::ComplexValue<Common::String>& value) override {
    output_.Append(" (Common::String) = ");
    output_.Append(std::u16string_view(value.Get()));
    EndHead();
  }
  void Visit(const View::ComplexValue<Common::Error>& value) override {
    const Common::Error& error = value.Get();
    PrintError(error);
    std::size_t indent = current_.indent;
    for (Common::Error reason = error.GetNextError(); reason.GetRecord() != nullptr;
         reason = reason.GetNextError()) {
      indent += 2;
      output_.AppendBlanks(indent);
      output_.Append("(SubError)");
      PrintError(reason);
    }
  }
  void Visit(const View::ArrayValue& value) override {
    output_.Append(" (Array)");
    BeginMembers();
    unsigned long long index = 0;
    auto processor = MakeProcessor<const View::Unit>([this, &index](const View::Unit& element) {
      Pending member = MakeMember(element);
      member.index = index++;
      pending_.push_back(member);
    });
    value.ForEach(processor);
  }
  void Visit(const View::CompositeValue& value) override {
    output_.Append(" (Composite)");
    BeginMembers();
    auto processor = MakeProcessor<const View::Property>([this](const View::Property& property) {
      Pending member = MakeMember(property.GetValue());
      member.name = property.GetName().GetText();
      pending_.push_back(member);
    });
    value.ForEach(processor);
  }

 private:
  void PrintValue() {
    output_.AppendBlanks(current_.indent);
    if (current_.is_trait) output_.Append('[');
    if (current_.name != nullptr) {
      output_.Append(current_.name);
    } else {
      output_.AppendDecimal(current_.index);
    }
    // Members are collected behind the traits, in the order of printing; then the whole run is
    // turned round, so that the first lies on top.
    bottom_ = pending_.size();
    CollectTraits();
    current_.unit->Accept(*this);
    std::reverse(pending_.begin() + static_cast<std::ptrdiff_t>(bottom_), pending_.end());
  }

  void CollectTraits() {
    auto processor = MakeProcessor<const View::Trait>([this](const View::Trait& trait) {
      Pending piece;
      piece.indent = current_.indent + 2;
      piece.is_trait = true;
      piece.unit = &trait.GetValue();
      piece.name = trait.GetName().GetText();
      piece.ends_lines = false;
      pending_.push_back(piece);
      piece.unit = nullptr;
      piece.ends_lines = current_.ends_lines;
      pending_.push_back(piece);
    });
    current_.unit->GetTraits().ForEach(processor);
  }

  void PrintTraitEnd() {
    if (current_.repeats_indent) output_.AppendBlanks(current_.indent);
    output_.Append(']');
    EndHead();
  }

  // Ends the head of an array or composite. The end of a trait lies right below its value.
  void BeginMembers() {
    if (current_.is_trait) pending_[bottom_ - 1].repeats_indent = true;
    EndHead();
  }

  Pending MakeMember(const View::Unit& unit) const {
    Pending member;
    member.unit = &unit;
    member.indent = current_.indent + 2;
    member.ends_lines = current_.ends_lines;
    return member;
  }

  template <class T>
  void PrintScalar(T value) {
    const char head[] = {' ', '(', Letter(value), ')', ' ', '=', ' '};
    output_.Append(std::string_view(head, sizeof head));
    AppendScalar(output_, value);
    EndHead();
  }

  void PrintError(const Common::Error& error) {
    output_.Append(" Code = ");
    output_.AppendDecimal(error.GetCode());
    output_.Append(" LineTag = ");
    output_.AppendHex(error.GetLineTag().location);
    const Common::String message = error.GetMessage();
    if (!message.empty()) {
      output_.Append(" Message = ");
      output_.Append(std::u16string_view(message));
    }
    EndHead();
  }

  void EndHead() {
    if (current_.ends_lines) output_.EndLine();
  }

  Output& output_;
  std::vector<Pending> pending_;
  Pending current_;
  std::size_t bottom_ = 0;  // where the traits and members of the current value begin
};

}  // namespace

void PrintUnit(const View::Unit& unit, std::size_t indent, ObjProbe::Output& output) {
  ValuePrinter(output).Print(unit, indent);
}

}  // namespace Por::Util
