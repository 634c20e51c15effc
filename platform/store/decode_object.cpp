#include "platform/store/decode_object.h"

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_blob.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/decode_object"};

}  // namespace

Por::OwnedUnit DecodeObject(const unsigned char* data, std::size_t size,
                            const Por::Construction::UnitFactory& factory) {
  Por::OwnedUnit unit;
  Dml::SafeInvoke([&] {
    unit = Por::Util::ReadUnitBlob(data, size, factory);
    if (unit == nullptr) {
      throw Por::ModuleError(Por::kPorNullUnit,
                             Common::GetMessageText(Common::MessageRow::PorNullUnit),
                             kSource.At("DecodeObject", 10));
    }
  });
  return unit;
}

}  // namespace Platform::Store
