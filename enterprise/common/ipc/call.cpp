#include "enterprise/common/ipc/call.h"

#include <utility>

namespace Binding {

Common::Error Call(AccessPoint& access_point, std::unique_ptr<Request> request) {
  std::unique_ptr<JobManagement::Job> job;
  Common::Error error = access_point.CreateJob(std::move(request), job);
  if (error.IsFailure()) return error;
  return job->Run(nullptr);
}

}  // namespace Binding
