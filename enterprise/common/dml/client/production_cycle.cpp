#include "enterprise/common/dml/client/production_cycle.h"

#include <utility>

#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/cyclic_runner.h"

namespace Dml::Client {

ProductionCycle::ProductionCycle(std::shared_ptr<Async::Action> pull)
    : WaitingHandler(false), action_(std::move(pull)) {}

ProductionCycle::~ProductionCycle() {
  if (action_ != nullptr) return;
  control_.Cancel();
  Wait(nullptr);
}

void ProductionCycle::Start(Consumer& consumer) {
  Async::Detail::CyclicRunAction cycle(std::exchange(action_, nullptr));
  Async::ActionRefAdaptor start([&](Async::ActionHandler& handler) {
    try {
      return cycle.Perform(handler);
    } catch (const Common::Error& error) {
      consumer.Fail(error);
      throw;
    }
  });
  control_.Run(start, *this, nullptr);
}

void ProductionCycle::Cancel() {
  control_.Cancel();
}

}  // namespace Dml::Client
