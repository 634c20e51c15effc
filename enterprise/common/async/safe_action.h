#pragma once

#include "enterprise/common/async/action.h"

namespace Async {

// Performs another action, which is borrowed, and lets nothing but Common::Error out of it:
// std::bad_alloc becomes the out-of-memory error, anything else is described as an exception out of
// "Perform". For runs of a JobControl that may begin on a thread where nobody would see the
// exception: the handler is told in every case.
class SafeAction final : public Action {
 public:
  explicit SafeAction(Action& action) : action_(action) {}

  std::shared_ptr<Job> Perform(ActionHandler& handler) override;

 private:
  Action& action_;
};

}  // namespace Async
