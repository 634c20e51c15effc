#include "core/common/dynamic_caster.h"

#include <cstring>

namespace Common {

void** DynamicCasterImpl::Find(const char* type_name) {
  for (auto& [name, pointer] : interfaces_) {
    if (std::strcmp(name, type_name) == 0) return &pointer;
  }
  return nullptr;
}

void* DynamicCasterImpl::GetInterface(const char* type_name) {
  if (type_name == nullptr) return nullptr;
  void** const found = Find(type_name);
  return found != nullptr ? *found : nullptr;
}

void DynamicCasterImpl::RegisterInterface(const char* type_name, void* pointer) {
  if (void** const found = Find(type_name)) {
    *found = pointer;
  } else {
    interfaces_.emplace_back(type_name, pointer);
  }
}

}  // namespace Common
