#include "platform/store/guarded_call.h"

#include <utility>

#include "core/common/trace.h"
#include "enterprise/common/async/operation_description.h"

namespace Platform::Store {

Common::Error DescribeException(const char16_t* operation) noexcept {
  Async::NamedOperationDescription description(operation);
  return Async::DescribeCaughtException(description);
}

void TellEnd(Async::ActionHandler& handler, Common::Error result) {
  const Common::Error failure =
      RunGuarded(u"Completed", [&] { handler.Completed(std::move(result)); });
  if (failure.IsFailure()) Common::Trace(Common::kTraceError, failure);
}

}  // namespace Platform::Store
