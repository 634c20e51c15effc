#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>

#include "core/common/error.h"
#include "core/common/unix/event.h"
#include "core/common/unix/mutex.h"
#include "core/common/unix/static_mutex.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/async/job_state.h"
#include "enterprise/common/async/operation_description.h"

namespace Async {

// What the job machinery uses between threads. Tests put a scheduler of their own in its place,
// which sees every access to a state word and every lock.
struct ThreadAtomics {
  using Word = std::atomic<std::uintptr_t>;
  using Counter = std::atomic<std::uintptr_t>;
  template <class T>
  using Pointer = std::atomic<T*>;
  using Mutex = Common::Mutex;
  using MutexLock = Common::MutexLock;
  using StaticMutex = Common::StaticMutex;
  using StaticMutexLock = Common::StaticMutexLock;
  using Event = Common::Event;
  // Called between two looks at a state that another thread is about to leave.
  static void Pause() noexcept { std::this_thread::yield(); }
};

struct JobControlDescriptions {
  // An exception out of Action::Perform.
  class PerformExceptionDescription : public NamedOperationDescription {
   public:
    PerformExceptionDescription() : NamedOperationDescription(Common::MessageRow::AsyncPerform) {}
  };
  // An exception out of the handler's Completed.
  class FinishExceptionDescription : public NamedOperationDescription {
   public:
    FinishExceptionDescription()
        : NamedOperationDescription(Common::MessageRow::AsyncFinalizeRun) {}
  };
};

// Runs one action at a time and settles who finishes the run, with which error, whatever the order
// of "Perform returned", "Perform failed", Completed and Cancel. A composite job embeds it.
//
// Each run tells its handler exactly once, from the thread of Run, of Completed or of Cancel, with
// nothing held; often inside the call to Run. Before that call the control is free again: the
// handler may start the next run on it or destroy it. No run is finished while a Job::Cancel of
// the same run is in progress.
//
// A cancel that meets no run, or a run that doesn't end with kCanceledCode in its chain, stays
// pending: the next run ends at once with kCanceledCode, without a Perform. A failed Perform
// consumes a pending cancel.
//
// A result that comes after Perform has returned and before any cancel is handed over as it came.
// On the other ways a result that is a failure is wrapped in the text of the run's description
// (kDescribedJobCode). A failure of Perform and the cancel of a run that never began are not.
//
// Threads: Completed and Cancel any; Run one at a time, the next one not before the handler has
// been called. Lock-free: the state word changes by compare-and-swap alone. Whoever breaks the
// contract gets an assertion and changes no state; but a second result may stand in for the first
// one, and a second Run takes the place of the first one's handler. Lifetime:
// the owner keeps the control alive until the handler has been called and no call to Cancel is in
// progress. Exceptions other than Common::Error out of Perform leave Run, and the handler is never
// told.
template <class Atomics>
class BasicJobControl : public ActionHandler, public JobControlDescriptions {
 public:
  BasicJobControl() = default;
  // Asserts that no run is in progress. A pending cancel is no obstacle.
  ~BasicJobControl() override;

  // Calls action.Perform on this thread with the control as its handler. `handler` and
  // `description`, which may be null, are borrowed until the handler is called. A Common::Error out
  // of Perform goes to the handler; one out of the handler is traced and dropped.
  void Run(Action& action, ActionHandler& handler, DescriptiveEntity* description);
  // At any time, also without a run. Calls Job::Cancel at most once per run, on this thread or
  // on the thread of Run.
  void Cancel();
  // The entry for the end of the performed action.
  void Completed(Common::Error result) override;

  JobState State() const { return static_cast<JobState>(state_.load()); }

 private:
  // The one place that changes the state. False if it was not `From`.
  template <JobState From, JobState To>
  bool Change();

  bool PreventiveCancel();
  Common::Error Perform(Action& action, std::shared_ptr<Job>& job);
  void PerformFinished();
  void PerformFailed(Common::Error error);
  Common::Error DescribeResult(const Common::Error& error);
  bool IsResultCanceled() const;
  Common::Error TakeResult();
  // These may end with the control destroyed: their callers touch no member afterwards.
  void FinishRun(Common::Error error);
  static Common::Error SafeFinishRun(ActionHandler& handler, Common::Error error);

  typename Atomics::Word state_{STATE_BEGIN};
  // The plain fields belong to whoever is next in the order that the state word gives.
  ActionHandler* handler_ = nullptr;
  DescriptiveEntity* description_ = nullptr;
  // Written before the change that shows it to the finishing thread. Empty stands for
  // invalid_result_error, whose shared count every run would otherwise touch twice.
  std::optional<Common::Error> result_;
  // Set when Perform has returned: until then nobody can call Job::Cancel.
  std::shared_ptr<Job> job_;
};

extern template class BasicJobControl<ThreadAtomics>;
using JobControl = BasicJobControl<ThreadAtomics>;

}  // namespace Async
