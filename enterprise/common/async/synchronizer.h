#pragma once

#include <memory>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/async/waiting_handler.h"

namespace Async {

// Stands on the stack of a caller that performs an action with it as handler, keeps the returned
// job and waits for the end. Threads: as WaitingHandler.
class Synchronizer : public ActionHandler {
 public:
  Synchronizer() = default;

  void Completed(Common::Error result) override;
  // The job may be null.
  Common::Error Wait(const std::shared_ptr<Job>& job);

 private:
  WaitingHandler handler_{true};
};

}  // namespace Async
