#include "enterprise/common/dml/missing_part.h"

#include "core/common/message_table.h"

namespace Dml {

Common::Error MakeMissingPartError(const Common::String& part, const Common::LineTag& tag) {
  Common::String text;
  Common::FormatMessage(text, Common::GetMessageText(Common::MessageRow::DmlMissing), part);
  return Common::Error(kMissingPartCode, text.c_str(), tag);
}

}  // namespace Dml
