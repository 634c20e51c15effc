#pragma once

#include <cstdio>
#include <string>
#include <typeinfo>

#include "core/common/error.h"
#include "enterprise/common/por/module_error.h"
#include "tests/support/text.h"

namespace Por::Test {

// What a call throws, to be compared with a literal.
struct Thrown {
  std::string error = "nothing";  // "ModuleError fa000f: POR: Out of range.", or "Error ..."
  std::string place;              // "enterprise/common/por/array_value_holder:53 CheckOutOfRange"
  bool is_traced = false;         // its text tells the level at which it was traced
};

template <class Call>
Thrown Catch(Call&& call) {
  try {
    call();
  } catch (const Common::Error& error) {
    char code[16];
    std::snprintf(code, sizeof code, "%x", static_cast<unsigned int>(error.GetCode()));
    const Common::LineTag tag = error.GetLineTag();
    Thrown thrown{
        typeid(error) == typeid(ModuleError) ? "ModuleError " : "Error ", "",
        TestSupport::Utf8(error.ToString()).find("\n| TraceLevel: ") != std::string::npos};
    thrown.error.append(code).append(": ").append(TestSupport::Utf8(error.GetMessage()));
    if (tag.file == nullptr) return thrown;
    thrown.place.append(tag.file).append(":").append(std::to_string(tag.line));
    thrown.place.append(" ").append(tag.function);
    return thrown;
  }
  return {};
}

}  // namespace Por::Test
