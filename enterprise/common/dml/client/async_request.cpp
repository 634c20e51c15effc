#include "enterprise/common/dml/client/async_request.h"

#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/unix/safe_assert.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/dml_codes.h"
#include "enterprise/common/dml/safe_invoke.h"

namespace Dml {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/client/async_request"};

}  // namespace

AsyncRequest::AsyncRequest(std::shared_ptr<Binding::AccessPoint> access_point,
                           std::unique_ptr<Binding::Request> request, Async::ActionHandler& handler)
    : access_point_(std::move(access_point)), handler_(&handler) {
  result_ = access_point_->CreateJob(std::move(request), Job);
}

AsyncRequest::~AsyncRequest() {
  finished_.Wait();
}

void AsyncRequest::Start() {
  if (result_.IsFailure()) {
    OnFinished();
    return;
  }
  SAFE_ASSERT(Job.get());
  if (Job == nullptr) {
    OnFailure(Common::Error(kDisposedObjectCode,
                            Common::GetMessageText(Common::MessageRow::DmlDisposedObject),
                            kSource.At("Start", 10)));
    OnFinished();
    return;
  }
  finished_.Reset();
  // Once the job has started its end may take this object away.
  const Common::Error error = Job->Start(this);
  if (error.IsFailure()) {
    OnFailure(error);
    OnFinished();
  }
}

void AsyncRequest::Cancel() {
  SAFE_ASSERT(Job.get());
  if (Job == nullptr) return;
  Async::ActionHandler* const handler = handler_.exchange(nullptr);
  if (handler != nullptr) Job->Cancel();  // a job that can't be cancelled ends all the same
  finished_.Wait();
  if (handler != nullptr) TellHandler(*handler, Async::canceled_error.Get());
}

void AsyncRequest::OnSuccess() {
  result_ = Common::Error();
}

void AsyncRequest::OnFailure(const Common::Error& error) {
  result_ = error;
}

void AsyncRequest::OnFinished() {
  Common::Error result = result_;
  Async::ActionHandler* const handler = handler_.exchange(nullptr);
  // Whoever waits may destroy this object at once.
  finished_.Set();
  if (handler != nullptr) TellHandler(*handler, std::move(result));
}

void AsyncRequest::OnCancel() {
  Cancel();
}

void RequestRunner::Cancel() {
  if (request_ != nullptr) request_->Cancel();
}

void RequestRunner::Run() {
  if (request_ != nullptr) request_->Start();
}

void RequestRunner::Send(const std::shared_ptr<Binding::AccessPoint>& access_point,
                         std::unique_ptr<Binding::Request> request, Async::ActionHandler& handler) {
  request_ = std::make_shared<AsyncRequest>(access_point, std::move(request), handler);
  RequestRunner::Run();
}

SmartRequestRunner::SmartRequestRunner(std::shared_ptr<Binding::AccessPoint> access_point,
                                       Async::ActionHandler& handler)
    : access_point_(std::move(access_point)), handler_(&handler) {}

void SmartRequestRunner::Run() {
  Send(access_point_, CreateRequest(), *this);
}

void SmartRequestRunner::Completed(Common::Error result) {
  if (!result.IsFailure()) {
    Common::Error raised =
        RunGuarded(u"Succeeded", [this] { SafeInvoke([this] { Succeeded(); }); });
    if (raised.IsFailure()) result = std::move(raised);
  }
  TellHandler(*handler_, std::move(result));
}

}  // namespace Dml
