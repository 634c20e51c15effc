#pragma once

#include <ostream>
#include <string_view>

#include "enterprise/common/por/parser/statement_input.h"
#include "enterprise/common/por/unit_constructor.h"

namespace Utils {

// Reads the argument at `input`, up to but not including the closing character, echoes the
// statement and makes its builder call. Gives the constructor for the next statement.
using StatementHandler = Por::Util::UnitConstructor (*)(StatementInput& input,
                                                        const Por::Util::UnitConstructor& unit,
                                                        std::ostream& echo);

// The statements by name. Names are exact, case included. Constant data.
class StatementTable {
 public:
  // Throws Common::Error 6 "Statement '{0}' is unknown.".
  static StatementHandler GetStatement(std::u16string_view name);
};

}  // namespace Utils
