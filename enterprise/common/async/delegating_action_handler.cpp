#include "enterprise/common/async/delegating_action_handler.h"

#include <utility>

#include "core/common/unix/safe_assert.h"

namespace Async {

Common::Error DelegatingActionHandler::Filter(const Common::Error& result) {
  return result;
}

void DelegatingActionHandler::Completed(Common::Error result) {
  Common::Error filtered;
  try {
    filtered = Filter(result);
  } catch (const Common::Error& exception) {
    filtered = exception;
    filtered.SetReason(result);
  }
  SAFE_ASSERT(Handler && "Invalid Delegating Action Handler state.");
  if (Handler == nullptr) return;
  Handler->Completed(std::move(filtered));
}

}  // namespace Async
