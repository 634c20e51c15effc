#include "core/common/resource_api.h"

// For programs without a resource library: whatever else defines these takes their place.
namespace ResourceApi {

[[gnu::weak]] ModuleHandle* OpenModule(const char16_t*) {
  return nullptr;
}

[[gnu::weak]] void CloseModule(ModuleHandle*) {}

[[gnu::weak]] std::unique_ptr<unsigned char[]> LoadFile(ModuleHandle*, const char*, const char*,
                                                        unsigned int* size) {
  *size = 0;
  return nullptr;
}

[[gnu::weak]] void SubscribeLanguageEvents(void (*)()) {}

[[gnu::weak]] void UnsubscribeLanguageEvents(void (*)()) {}

}  // namespace ResourceApi
