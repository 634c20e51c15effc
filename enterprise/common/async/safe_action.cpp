#include "enterprise/common/async/safe_action.h"

#include "enterprise/common/async/job_control.h"

namespace Async {

std::shared_ptr<Job> SafeAction::Perform(ActionHandler& handler) {
  try {
    return action_.Perform(handler);
  } catch (...) {
    JobControl::PerformExceptionDescription operation;
    throw DescribeCaughtException(operation);
  }
}

}  // namespace Async
