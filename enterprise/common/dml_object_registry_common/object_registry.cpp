#include "enterprise/common/ipc/component_info.h"

// The object registry, a second interface of the services. The client doesn't call it: what it has
// of it is this description.

namespace Core {

namespace {

constexpr std::uint32_t kObjectRegistryId = 274;

}  // namespace

template <>
struct ComponentFacts<kObjectRegistryId> {
  static constexpr std::uint32_t kVersion = 1;
  static constexpr int kMethodCount = 3;
  static constexpr Common::LineTag kNoMethodTag =
      Common::SourceFile("enterprise/common/dml_object_registry_common/object_registry")
          .At("GetMethodInfo", 40);
};

namespace {

[[maybe_unused]] const bool registered = [] {
  RegisterComponent(&ComponentInfoImpl<kObjectRegistryId>::GetInstance());
  return true;
}();

}  // namespace

}  // namespace Core
