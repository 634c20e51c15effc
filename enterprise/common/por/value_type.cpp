#include <string>

#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value_kind.h"
#include "enterprise/common/por/visitor.h"

namespace Por::Util {
namespace {

class GetValueTypeIndexVisitor {
 public:
  void operator()(const auto& value) { index = Detail::IndexOfValue(value); }
  unsigned int index = kNoIndex;
};

}  // namespace

unsigned int GetValueTypeIndex(const View::Unit& unit) {
  GetValueTypeIndexVisitor found;
  View::Detail::UnitVisitorAdaptor<GetValueTypeIndexVisitor> visitor(found);
  unit.Accept(visitor);
  return found.index;
}

Common::String GetTypeName(unsigned int index) {
  static constexpr const char* kWords[] = {
#define POR_WORD(number, Word, Value, Argument) #Word,
      POR_VALUE_KINDS(POR_WORD)
#undef POR_WORD
  };
  Common::String name;
  if (index >= kNoIndex) {
    for (const char digit : std::to_string(index)) name += static_cast<char16_t>(digit);
    return name;
  }
  for (const char* at = kWords[index]; *at != 0; ++at) {
    const bool upper = *at >= 'A' && *at <= 'Z';
    name += static_cast<char16_t>(upper ? *at - 'A' + 'a' : *at);
  }
  return name;
}

}  // namespace Por::Util
