#include "enterprise/common/por/parser/unit_construction_format.h"

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <utility>
#include <vector>

#include "core/common/string.h"
#include "enterprise/common/por/parser/statement_input.h"
#include "enterprise/common/por/parser/statement_table.h"
#include "enterprise/common/por/parser/unit_construction_text_format.h"
#include "enterprise/common/por/unit_constructor.h"

namespace Utils {
namespace {

// Each byte becomes one character; nothing is decoded.
Common::String ReadWidened(DataReader& reader) {
  std::vector<unsigned char> bytes;
  reader.Read(bytes);
  return Common::String(bytes.begin(), bytes.end());
}

}  // namespace

UnitConstructionFormat::UnitConstructionFormat(std::ostream& echo, std::unique_ptr<UnitStage> next)
    : echo_(&echo), next_(std::move(next)) {}

Por::OwnedUnit UnitConstructionFormat::Read(DataReader& reader,
                                            const Por::Construction::UnitFactory& factory) {
  const Common::String text = ReadWidened(reader);
  std::ostream discarding(nullptr);
  std::ostream& echo = trace_ ? *echo_ : discarding;
  Por::Util::UnitConstructor unit(factory);

  echo << "Interpret trace: " << std::flush;
  StatementInput input(text);
  while (true) {
    input.SkipBlanks();
    if (input.IsAtEnd()) break;
    if (input.GetInput() == u'.') input.Skip();
    const std::u16string_view name =
        input.TakeUpTo(input.GetNext([](char16_t c) { return c == u'('; }));
    const StatementHandler run = StatementTable::GetStatement(name);
    input.Skip();
    unit = run(input, unit, echo);
    // The closing character: any will do, but it must be there.
    input.Skip();
  }
  echo << '\n' << std::flush;

  Por::OwnedUnit result = unit.TakeResult();
  return next_ != nullptr ? next_->Process(std::move(result), factory) : std::move(result);
}

void UnitConstructionFormat::Write(const Por::View::Unit& unit,
                                   Por::Util::BinaryDataConsumer& sink) {
  const Common::String text = UnitConstructorFormat::PrintUnit(unit);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.data());
  // One call, but for a text that one call has no room for.
  constexpr std::size_t kMost = std::size_t{1} << 31;
  std::size_t left = text.size() * sizeof(char16_t);
  do {
    const std::size_t length = std::min(left, kMost);
    sink.Consume(bytes, static_cast<std::uint32_t>(length));
    bytes += length;
    left -= length;
  } while (left != 0);
}

}  // namespace Utils
