#include "enterprise/common/async/waiting_handler.h"

#include <utility>

#include "enterprise/common/async/synchronization_callback.h"

namespace Async {

WaitingHandler::WaitingHandler(bool auto_reset) : event_(!auto_reset, false) {}

void WaitingHandler::Completed(Common::Error result) {
  result_ = std::move(result);
  event_.Set();  // the waiter may be gone with this object: nothing behind this
}

Common::Error WaitingHandler::Wait(Job* job) {
  NotifySynchronization(job);
  event_.Wait();
  return result_;
}

}  // namespace Async
