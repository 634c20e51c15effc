#pragma once

#include <sstream>
#include <string>

#include "core/common/text.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/parser/unit_construction_text_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "tests/enterprise/common/por/thrown.h"
#include "tests/support/text.h"

namespace Utils {

struct TextOutcome {
  Por::OwnedUnit unit;
  std::string printed;  // the unit on one line, with ' for the quotes; "" for none
  std::string echo;
  Por::Test::Thrown thrown;
};

inline TextOutcome ReadText(const std::string& text) {
  TextOutcome outcome;
  std::ostringstream echo;
  UnitConstructionFormat format(echo);
  InMemoryDataReader reader(Common::Utf8ToString(text.c_str()));
  outcome.thrown =
      Por::Test::Catch([&] { outcome.unit = format.Read(reader, *Por::GetStaticUnitFactory()); });
  outcome.echo = echo.str();
  if (outcome.unit != nullptr) {
    const UnitConstructorFormat::UnitTextStyle line{u"", u"", u"", u"", u"'"};
    outcome.printed = TestSupport::Utf8(UnitConstructorFormat::PrintUnit(*outcome.unit, line));
  }
  return outcome;
}

}  // namespace Utils
