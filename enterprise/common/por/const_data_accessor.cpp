#include "enterprise/common/por/const_data_accessor.h"

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_helpers.h"

namespace Por {

namespace {
constexpr Common::SourceFile kSource{"enterprise/common/por/const_data_accessor"};
}  // namespace

ConstDataAccessor ConstDataAccessor::operator[](const Name& key) const {
  if (unit_ == nullptr) return *this;
  const View::Unit* element = Util::FindElement(unit_, key);
  return element != nullptr ? ConstDataAccessor(*element) : ConstDataAccessor(key);
}

void ConstDataAccessor::EnsureUnitIsValid() const {
  if (unit_ != nullptr) return;
  Common::String text;
  Common::FormatMessage(text, Common::GetMessageText(Common::MessageRow::PorElementNotFound),
                        name_.ToString());
  throw ModuleError(kPorElementNotFound, text.c_str(), kSource.At("EnsureUnitIsValid", 125));
}

}  // namespace Por
