#include "platform/store/guarded_call.h"

#include <exception>
#include <new>
#include <utility>

#include "core/common/trace.h"
#include "enterprise/common/async/operation_description.h"

namespace Platform::Store {

Common::Error DescribeException(const char16_t* operation) noexcept {
  try {
    throw;
  } catch (const Common::Error& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  } catch (const std::exception& failure) {
    return Async::NamedOperationDescription(operation).DescribeStdException(failure);
  } catch (...) {
    return Async::NamedOperationDescription(operation).DescribeUnknownException();
  }
}

void TellEnd(Async::ActionHandler& handler, Common::Error result) {
  try {
    handler.Completed(std::move(result));
  } catch (const Common::Error& error) {
    Common::Trace(Common::kTraceError, error);
  }
}

}  // namespace Platform::Store
