#pragma once

// The steps of BasicJobControl, for those who instantiate it with atomics of their own.

#include <new>
#include <utility>

#include "core/common/message_table.h"
#include "core/common/trace.h"
#include "core/common/unix/safe_assert.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job_control.h"

namespace Async {
namespace Detail {

inline constexpr Common::SourceFile kJobControlSource{"enterprise/common/async/job_control"};

}  // namespace Detail

template <class Atomics>
BasicJobControl<Atomics>::~BasicJobControl() {
  const JobState state = State();
  SAFE_ASSERT((state == STATE_BEGIN || state == STATE_CANCEL_SCHEDULED_WAIT_ALL) &&
              "Premature JobControl destruction.");
}

template <class Atomics>
template <JobState From, JobState To>
bool BasicJobControl<Atomics>::Change() {
  static_assert(kJobTransitionTable.Allows(From, To));
  // Strong: rows that assert a change must not meet a failure without a reason.
  std::uintptr_t expected = From;
  return state_.compare_exchange_strong(expected, To);
}

template <class Atomics>
void BasicJobControl<Atomics>::Run(Action& action, ActionHandler& handler,
                                   DescriptiveEntity* description) {
  handler_ = &handler;
  description_ = description;
  if (PreventiveCancel()) return;
  // Keeps the job while its end is on the way: the control may be gone before Run returns.
  std::shared_ptr<Job> job;
  Common::Error error = Perform(action, job);
  if (error.IsFailure()) {
    PerformFailed(std::move(error));
  } else {
    PerformFinished();
  }
}

template <class Atomics>
bool BasicJobControl<Atomics>::PreventiveCancel() {
  if (State() != STATE_CANCEL_SCHEDULED_WAIT_ALL) return false;
  if (!Change<STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_FINISHING>()) {
    SAFE_ASSERT_NOT_REACHED("State logic broken. Second Perform() called.");
  }
  FinishRun(Common::MakeTracedError(kCanceledCode,
                                    Common::GetMessageText(Common::MessageRow::AsyncCanceled),
                                    Detail::kJobControlSource.At("PreventiveCancel", 10)));
  return true;
}

template <class Atomics>
Common::Error BasicJobControl<Atomics>::Perform(Action& action, std::shared_ptr<Job>& job) {
  try {
    job = action.Perform(*this);
  } catch (const Common::Error& exception) {
    PerformExceptionDescription description;
    return SafeOperationDescription(description).DescribeException(exception);
  }
  job_ = job;
  return {};
}

template <class Atomics>
void BasicJobControl<Atomics>::PerformFinished() {
  for (;;) {
    switch (State()) {
      case STATE_BEGIN:
        if (Change<STATE_BEGIN, STATE_PERFORMED_WAIT_COMPLETED>()) return;
        break;
      case STATE_COMPLETED_WAIT_PERFORM:
        if (Change<STATE_COMPLETED_WAIT_PERFORM, STATE_FINISHING>()) {
          FinishRun(TakeResult());
          return;
        }
        break;
      case STATE_CANCEL_SCHEDULED_WAIT_ALL:
        if (job_ == nullptr) {
          if (Change<STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_CANCEL_DONE_WAIT_COMPLETED>()) return;
        } else if (Change<STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_CANCEL_SCHEDULED_CANCELLING>()) {
          job_->Cancel();  // Run holds the job
        }
        break;
      case STATE_CANCEL_SCHEDULED_WAIT_PERFORM: {
        const bool syncPoint =
            Change<STATE_CANCEL_SCHEDULED_WAIT_PERFORM, STATE_CANCEL_SCHEDULED_WAIT_ALL>();
        SAFE_ASSERT(syncPoint && "State logic broken.");
        FinishRun(TakeResult());
        return;
      }
      case STATE_CANCEL_SCHEDULED_CANCELLING:
        if (Change<STATE_CANCEL_SCHEDULED_CANCELLING, STATE_CANCEL_DONE_WAIT_COMPLETED>()) return;
        break;
      case STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED: {
        const bool syncPoint =
            IsResultCanceled()
                ? Change<STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED, STATE_FINISHING>()
                : Change<STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED,
                         STATE_CANCEL_SCHEDULED_WAIT_ALL>();
        SAFE_ASSERT(syncPoint && "State logic broken.");
        FinishRun(TakeResult());
        return;
      }
      case STATE_PERFORMED_WAIT_COMPLETED:
      case STATE_CANCEL_DONE_WAIT_COMPLETED:
      case STATE_CANCELLING:
      case STATE_CANCELLING_COMPLETED:
        SAFE_ASSERT_NOT_REACHED("State logic broken. Second Perform() called.");
        return;
      case STATE_FINISHING:
        Atomics::Pause();
        break;
    }
  }
}

template <class Atomics>
void BasicJobControl<Atomics>::PerformFailed(Common::Error error) {
  Common::Trace(Common::kTraceError, error);
  result_ = std::move(error);
  for (;;) {
    switch (State()) {
      case STATE_BEGIN:
        if (Change<STATE_BEGIN, STATE_FINISHING>()) {
          FinishRun(TakeResult());
          return;
        }
        break;
      case STATE_COMPLETED_WAIT_PERFORM:
        if (Change<STATE_COMPLETED_WAIT_PERFORM, STATE_FINISHING>()) {
          FinishRun(TakeResult());
          return;
        }
        break;
      case STATE_CANCEL_SCHEDULED_WAIT_ALL:
        if (Change<STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_FINISHING>()) {
          FinishRun(TakeResult());
          return;
        }
        break;
      case STATE_CANCEL_SCHEDULED_WAIT_PERFORM: {
        const bool syncPoint = Change<STATE_CANCEL_SCHEDULED_WAIT_PERFORM, STATE_FINISHING>();
        SAFE_ASSERT(syncPoint && "State logic broken.");
        FinishRun(TakeResult());
        return;
      }
      case STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED: {
        const bool syncPoint =
            Change<STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED, STATE_FINISHING>();
        SAFE_ASSERT(syncPoint && "State logic broken.");
        FinishRun(TakeResult());
        return;
      }
      case STATE_PERFORMED_WAIT_COMPLETED:
      case STATE_CANCEL_DONE_WAIT_COMPLETED:
      case STATE_CANCELLING:
      case STATE_CANCELLING_COMPLETED:
        SAFE_ASSERT_NOT_REACHED("State logic broken. Second Perform() called.");
        return;
      case STATE_CANCEL_SCHEDULED_CANCELLING:
        SAFE_ASSERT_NOT_REACHED("State logic broken. Second Perform() called?");
        return;
      case STATE_FINISHING:
        Atomics::Pause();
        break;
    }
  }
}

template <class Atomics>
void BasicJobControl<Atomics>::Completed(Common::Error result) {
  result_ = DescribeResult(result);
  for (;;) {
    switch (State()) {
      case STATE_BEGIN:
        if (Change<STATE_BEGIN, STATE_COMPLETED_WAIT_PERFORM>()) return;
        break;
      case STATE_PERFORMED_WAIT_COMPLETED:
        if (Change<STATE_PERFORMED_WAIT_COMPLETED, STATE_FINISHING>()) {
          FinishRun(std::move(result));  // here only the error as it came
          return;
        }
        break;
      case STATE_CANCEL_SCHEDULED_WAIT_ALL:
        if (Change<STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_CANCEL_SCHEDULED_WAIT_PERFORM>()) return;
        break;
      case STATE_CANCEL_DONE_WAIT_COMPLETED: {
        const bool syncPoint =
            IsResultCanceled()
                ? Change<STATE_CANCEL_DONE_WAIT_COMPLETED, STATE_FINISHING>()
                : Change<STATE_CANCEL_DONE_WAIT_COMPLETED, STATE_CANCEL_SCHEDULED_WAIT_ALL>();
        SAFE_ASSERT(syncPoint && "State logic broken.");
        FinishRun(TakeResult());
        return;
      }
      case STATE_CANCEL_SCHEDULED_CANCELLING:
        if (Change<STATE_CANCEL_SCHEDULED_CANCELLING,
                   STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED>()) {
          return;
        }
        break;
      case STATE_CANCELLING:
        if (Change<STATE_CANCELLING, STATE_CANCELLING_COMPLETED>()) return;
        break;
      case STATE_COMPLETED_WAIT_PERFORM:
      case STATE_CANCEL_SCHEDULED_WAIT_PERFORM:
      case STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED:
        SAFE_ASSERT_NOT_REACHED("State logic broken. Second Completed() called.");
        return;
      case STATE_CANCELLING_COMPLETED:
        SAFE_ASSERT_NOT_REACHED("State logic broken. Second Completed() called?");
        return;
      case STATE_FINISHING:
        Atomics::Pause();
        break;
    }
  }
}

template <class Atomics>
void BasicJobControl<Atomics>::Cancel() {
  // Whether this call is the one inside Job::Cancel. Only it may leave the two CANCELLING states:
  // another caller would finish the run under the running Job::Cancel.
  bool owner = false;
  for (;;) {
    switch (State()) {
      case STATE_BEGIN:
        if (Change<STATE_BEGIN, STATE_CANCEL_SCHEDULED_WAIT_ALL>()) return;
        break;
      case STATE_PERFORMED_WAIT_COMPLETED:
        if (Change<STATE_PERFORMED_WAIT_COMPLETED, STATE_CANCELLING>()) {
          owner = true;
          if (const std::shared_ptr<Job> job = job_) job->Cancel();
        }
        break;
      case STATE_COMPLETED_WAIT_PERFORM:
        if (Change<STATE_COMPLETED_WAIT_PERFORM, STATE_CANCEL_SCHEDULED_WAIT_PERFORM>()) return;
        break;
      case STATE_CANCEL_SCHEDULED_WAIT_ALL:
      case STATE_CANCEL_DONE_WAIT_COMPLETED:
      case STATE_CANCEL_SCHEDULED_WAIT_PERFORM:
      case STATE_CANCEL_SCHEDULED_CANCELLING:
      case STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED:
        return;  // a cancel is under way
      case STATE_CANCELLING:
        if (!owner || Change<STATE_CANCELLING, STATE_CANCEL_DONE_WAIT_COMPLETED>()) return;
        break;
      case STATE_CANCELLING_COMPLETED:
        if (!owner) return;
        if (IsResultCanceled()
                ? Change<STATE_CANCELLING_COMPLETED, STATE_FINISHING>()
                : Change<STATE_CANCELLING_COMPLETED, STATE_CANCEL_SCHEDULED_WAIT_ALL>()) {
          FinishRun(TakeResult());
          return;
        }
        break;
      case STATE_FINISHING:
        if (Change<STATE_FINISHING, STATE_CANCEL_SCHEDULED_WAIT_ALL>()) return;
        break;
    }
  }
}

template <class Atomics>
Common::Error BasicJobControl<Atomics>::DescribeResult(const Common::Error& error) {
  if (!error.IsFailure() || description_ == nullptr) return error;
  try {
    const JobDescription description = description_->Describe();
    Common::Error described =
        Common::MakeTracedError(kDescribedJobCode, description.text.c_str(), description.tag);
    described.SetReason(error);
    return described;
  } catch (const Common::Error&) {
    return error;
  } catch (const std::bad_alloc&) {
    Common::Error described = Common::Error::OutOfMemory();
    described.SetReason(error);
    return described;
  }
}

template <class Atomics>
bool BasicJobControl<Atomics>::IsResultCanceled() const {
  return result_ && result_->HoldsCode(kCanceledCode);
}

template <class Atomics>
Common::Error BasicJobControl<Atomics>::TakeResult() {
  return result_ ? std::move(*result_) : invalid_result_error.Get();
}

template <class Atomics>
void BasicJobControl<Atomics>::FinishRun(Common::Error error) {
  ActionHandler* const handler = std::exchange(handler_, nullptr);
  result_.reset();
  if (!Change<STATE_FINISHING, STATE_BEGIN>()) {
    SAFE_ASSERT(State() == STATE_CANCEL_SCHEDULED_WAIT_ALL && "State logic broken.");
  }
  // The handler may start the next run or destroy the control: no member behind its call. The job
  // goes last, as it may own all this.
  const std::shared_ptr<Job> job = std::move(job_);
  if (handler != nullptr) {
    const Common::Error failure = SafeFinishRun(*handler, std::move(error));
    if (failure.IsFailure()) Common::Trace(Common::kTraceError, failure);
  } else {
    Common::Trace(
        Common::kTraceError,
        Common::MakeTracedError(kNullHandlerCode,
                                u"Can't perform JobControl::SafeFinishRun with null handler.",
                                Detail::kJobControlSource.At("FinishRun", 20)));
  }
}

template <class Atomics>
Common::Error BasicJobControl<Atomics>::SafeFinishRun(ActionHandler& handler, Common::Error error) {
  try {
    handler.Completed(std::move(error));
    return {};
  } catch (const Common::Error& exception) {
    FinishExceptionDescription description;
    return SafeOperationDescription(description).DescribeException(exception);
  }
}

}  // namespace Async
