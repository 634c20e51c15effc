#include "enterprise/common/security/client/init.h"

#include <memory>

#include "core/common/message_table.h"
#include "enterprise/common/security/client/security_library.h"

namespace Security {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/security/client/init"};

Common::Error GetLastError(const Common::LineTag& tag) {
  unsigned char* data = nullptr;
  std::uint32_t size = 0;
  Security_GetLastError(&data, &size);
  if (data == nullptr) {
    return Common::Error(kInvalidResultCode,
                         Common::GetMessageText(Common::MessageRow::SecurityInvalidResult), tag);
  }
  const std::unique_ptr<unsigned char[]> owner(data);
  return Common::Error::Load(data, size);
}

}  // namespace

Common::Error Initialize(const Common::LineTag& tag) {
  if (Security_Initialize(tag.location, 0, 0) == 0) return Common::Error();
  return GetLastError(kSource.At("Initialize", 34));
}

}  // namespace Security
