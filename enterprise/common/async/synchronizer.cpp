#include "enterprise/common/async/synchronizer.h"

#include <utility>

namespace Async {

void Synchronizer::Completed(Common::Error result) {
  handler_.Completed(std::move(result));
}

Common::Error Synchronizer::Wait(const std::shared_ptr<Job>& job) {
  return handler_.Wait(job.get());
}

}  // namespace Async
