#include "enterprise/common/por/data_accessor.h"

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_helpers.h"

namespace Por {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/data_accessor"};

void EnsureUnitIsValid(const Construction::Unit* unit) {
  if (unit != nullptr) return;
  throw ModuleError(kPorArrayElementNotFound,
                    Common::GetMessageText(Common::MessageRow::PorElementIndexNotFound),
                    kSource.At("EnsureUnitIsValid", 70));
}

}  // namespace

DataAccessor DataAccessor::operator[](const Name& key) const {
  return DataAccessor(Util::FindElement(unit_, key));
}

Construction::Unit& DataAccessor::Get() const {
  EnsureUnitIsValid(unit_);
  return *unit_;
}

}  // namespace Por
