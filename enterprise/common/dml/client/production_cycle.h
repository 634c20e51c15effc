#pragma once

#include <memory>

#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/waiting_handler.h"
#include "enterprise/common/dml/client/consumer.h"

namespace Dml::Client {

// Pulls again and again, each time from the end of the pull before, until one fails.
class ProductionCycle final : public Async::WaitingHandler {
 public:
  // `pull` tells its consumer of the records and of its failure.
  explicit ProductionCycle(std::shared_ptr<Async::Action> pull);
  // Ends the loop and waits for that; so not on the thread of a pull, which would wait for itself.
  ~ProductionCycle() override;

  // Once. A loop that can't begin is told to `consumer`, as nobody else would.
  void Start(Consumer& consumer);
  // The pull in flight ends with Async::kCanceledCode, or the next one doesn't begin.
  void Cancel();

 private:
  std::shared_ptr<Async::Action> action_;  // until it is started
  Async::JobControl control_;
};

}  // namespace Dml::Client
