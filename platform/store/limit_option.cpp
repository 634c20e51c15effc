#include "platform/store/limit_option.h"

#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_value_access.h"

namespace Platform::Store {

std::optional<unsigned int> GetLimit(const Por::View::Unit* options) {
  if (options == nullptr) return std::nullopt;
  const Por::View::Property* limit = Por::Util::FindProperty(*options, "LimitOptions");
  if (limit == nullptr) return std::nullopt;
  return Por::Util::GetValue<unsigned int>(limit->GetValue());
}

}  // namespace Platform::Store
