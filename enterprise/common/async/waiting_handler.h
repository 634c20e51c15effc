#pragma once

#include "core/common/error.h"
#include "core/common/unix/event.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"

namespace Async {

// Lets one thread wait for a result that another one tells.
// Threads: Completed on any thread; Wait on one other, which may destroy the handler as soon as
// Wait has returned.
class WaitingHandler : public ActionHandler {
 public:
  // Auto-reset: one Wait consumes one result. Otherwise every later Wait returns the result at
  // once.
  explicit WaitingHandler(bool auto_reset);

  void Completed(Common::Error result) override;
  // Notifies this thread's synchronization callbacks of `job` (null: unknown), then blocks without
  // a limit: a job that never completes blocks for good. Returns the result.
  Common::Error Wait(Job* job);

 private:
  Common::Event event_;
  Common::Error result_;
};

}  // namespace Async
