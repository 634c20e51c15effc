#pragma once

#include <atomic>
#include <memory>

#include "core/common/error.h"
#include "core/common/unix/event.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/ipc/client_library.h"

namespace Dml {

// One request to a service as a job. Used once. Whoever gets the handler by its atomic exchange
// tells it: the end of the library's job, or a cancel.
//
// Threads: Start one; Cancel any, also at the moment of the end. The handler is told on a thread of
// the library, of Cancel, or of Start when nothing could be started. A Common::Error out of it is
// traced and dropped.
class AsyncRequest final : public Async::BaseJob, public JobManagement::JobHandler {
 public:
  // Makes the library's job at once. A failure of that is kept for Start; without a word of why
  // there is no job it is 0xFC0017. `access_point` is not null, `request` may be. `handler` is
  // borrowed until it has been told.
  AsyncRequest(std::shared_ptr<Binding::AccessPoint> access_point,
               std::unique_ptr<Binding::Request> request, Async::ActionHandler& handler);
  // Waits for the end of the library's job, but not until the handler has been told.
  ~AsyncRequest() override;

  // Never throws: a failure to start is told to the handler, on this thread.
  void Start();
  // Returns when the library's job has ended, whoever tells the handler; so not on a thread that
  // the library needs for that. The handler, if it had not been told, gets Async::kCanceledCode,
  // never the result of the library. Without a library's job this does nothing: Start tells.
  void Cancel() override;

  // Called by the library, one after the other.
  void OnSuccess() override;
  void OnFailure(const Common::Error& error) override;
  void OnFinished() override;
  void OnCancel() override;

 private:
  // Released from the last to the first.
  const std::shared_ptr<Binding::AccessPoint> access_point_;
  std::unique_ptr<JobManagement::Job> Job;  // null when it could not be made
  std::atomic<Async::ActionHandler*> handler_;
  Common::Event finished_{true, true};  // not signalled while the library's job runs
  // Written by whoever makes or starts the job, then by the library's calls only.
  Common::Error result_;
};

// A job that is one request. Lifetime: whoever runs it holds it until its end has been told.
class RequestRunner : public Async::BaseJob {
 public:
  // That of the request. Before Run there is none, and this does nothing.
  void Cancel() override;
  // Starts the request, if there is one.
  virtual void Run();

 protected:
  // Makes the request and starts it. `handler` is told its end.
  void Send(const std::shared_ptr<Binding::AccessPoint>& access_point,
            std::unique_ptr<Binding::Request> request, Async::ActionHandler& handler);

  std::shared_ptr<AsyncRequest> request_;
};

// One that does something with the reply, then tells the handler of its owner.
class SmartRequestRunner : public RequestRunner, public Async::ActionHandler {
 public:
  // Throws what CreateRequest throws; then nothing was started and nobody will be told.
  void Run() override;

  // Called with success only, before the handler is told. A Common::Error out of it is traced and
  // dropped: the outcome stays success. Anything else that it throws is the outcome.
  virtual void Succeeded() {}
  // The variables that the request fills belong to the runner. Null: the end is a failure.
  virtual std::unique_ptr<Binding::Request> CreateRequest() = 0;
  // The end of the request. The runner may be gone when it returns.
  void Completed(Common::Error result) override;

 protected:
  // `access_point` is not null. `handler` is borrowed until it has been told, once for each Run.
  SmartRequestRunner(std::shared_ptr<Binding::AccessPoint> access_point,
                     Async::ActionHandler& handler);

 private:
  const std::shared_ptr<Binding::AccessPoint> access_point_;
  Async::ActionHandler* const handler_;
};

}  // namespace Dml
