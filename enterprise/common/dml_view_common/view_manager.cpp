#include "enterprise/common/dml_view_common/view_manager.h"

#include "enterprise/common/ipc/component_info.h"

namespace Core {

template <>
struct ComponentFacts<Dml::ViewManagement::kViewManagerId> {
  static constexpr std::uint32_t kVersion = Dml::ViewManagement::kViewManagerVersion;
  static constexpr int kMethodCount = 9;
  static constexpr Common::LineTag kNoMethodTag =
      Common::SourceFile("enterprise/common/dml_view_common/view_manager").At("GetMethodInfo", 10);
};

}  // namespace Core

namespace Dml::ViewManagement {

namespace {

[[maybe_unused]] const bool registered = [] {
  Core::RegisterComponent(&Core::ComponentInfoImpl<kViewManagerId>::GetInstance());
  return true;
}();

}  // namespace

}  // namespace Dml::ViewManagement
