#include "platform/store/guarded_call.h"

#include <utility>

#include "core/common/trace.h"

namespace Platform::Store {

void TellEnd(Async::ActionHandler& handler, Common::Error result) {
  const Common::Error failure =
      RunGuarded(u"Completed", [&] { handler.Completed(std::move(result)); });
  if (failure.IsFailure()) Common::Trace(Common::kTraceError, failure);
}

}  // namespace Platform::Store
