#include "core/common/unix/mutex.h"

#include "core/common/unix/safe_assert.h"

namespace Common {

void Mutex::ReportFailedUnlock(int ret) noexcept {
  SAFE_ASSERT(ret == 0 && "Probably unlock from non-owner thread!");
}

}  // namespace Common
