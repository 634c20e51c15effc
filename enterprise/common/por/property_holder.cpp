#include "enterprise/common/por/property_holder.h"

#include <utility>

#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"

namespace Por {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/property_holder"};

}  // namespace

PropertyHolder::PropertyHolder(const Name& name, OwnedUnit value)
    : name_(name), value_(std::move(value)) {
  if (value_ == nullptr) {
    throw ModuleError(kPorNullUnit, Common::GetMessageText(Common::MessageRow::PorNullUnit),
                      kSource.At("PropertyHolder", 36));
  }
}

}  // namespace Por
