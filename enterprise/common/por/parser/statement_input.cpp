#include "enterprise/common/por/parser/statement_input.h"

#include "core/common/error.h"
#include "enterprise/common/por/parser/unit_construction_format.h"

namespace Utils {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/parser/statement_input"};

}  // namespace

void StatementInput::SkipBlanks() {
  current_ = std::find_if(current_, end_, [](char16_t c) {
    return c != u' ' && c != u'\t' && c != u'\r' && c != u'\n';
  });
}

void StatementInput::ThrowInputIsOver() {
  throw Common::Error(kInputIsOver, u"Input is over!", kSource.At("GetInput", 10));
}

void StatementInput::ThrowSymbolNotFound() {
  throw Common::Error(kSymbolNotFound, u"Expected symbol is not found!", kSource.At("GetNext", 20));
}

}  // namespace Utils
