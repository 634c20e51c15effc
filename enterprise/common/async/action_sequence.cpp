#include "enterprise/common/async/action_sequence.h"

#include <cstddef>
#include <new>
#include <utility>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/safe_action.h"
#include "enterprise/common/async/tail_recursion.h"

namespace Async {

class ActionSequence::ActionSequenceJob : public BaseJob,
                                          public ActionHandler,
                                          public TailRecursionController,
                                          public std::enable_shared_from_this<ActionSequenceJob> {
 public:
  ActionSequenceJob(ActionHandler& handler,
                    std::shared_ptr<std::deque<std::shared_ptr<Action>>> actions, bool repeat)
      : handler_(&handler), actions_(std::move(actions)), repeat_(repeat) {}

  void Cancel() override { control_.Cancel(); }

  // The end of a step. The handler may destroy this job: nothing is touched behind it.
  void Completed(Common::Error result) override {
    if (result.IsFailure()) {
      if (result.HoldsCode(kStopSequenceCode) ||
          (repeat_ && result.HoldsCode(kStopRepeatingCode))) {
        result = Common::Error();
      }
      handler_->Completed(std::move(result));
      return;
    }
    if (++position_ == actions_->size()) {
      if (!repeat_) {
        handler_->Completed(std::move(result));
        return;
      }
      position_ = 0;
    }
    Continue();
  }

  std::shared_ptr<void> GetKeepAlive() override { return shared_from_this(); }
  void Iterate() override {
    SafeAction step(*(*actions_)[position_]);
    control_.Run(step, *this, this);
  }

 private:
  ActionHandler* const handler_;
  const std::shared_ptr<std::deque<std::shared_ptr<Action>>> actions_;
  const bool repeat_;
  std::size_t position_ = 0;  // an index: an iterator would not survive an append by a step
  JobControl control_;
};

std::shared_ptr<Job> ActionSequence::Perform(ActionHandler& handler) {
  const bool repeat = IsRepeating(handler);
  if (actions_ == nullptr || actions_->empty()) {
    handler.Completed(Common::Error());
    return nullptr;
  }
  std::shared_ptr<ActionSequenceJob> job;
  try {
    job = std::make_shared<ActionSequenceJob>(handler, actions_, repeat);
  } catch (const std::bad_alloc&) {
    throw Common::Error::OutOfMemory();
  }
  job->Process();
  return job;
}

void ActionSequence::Execute(std::shared_ptr<Action> action) {
  if (action == nullptr) return;
  if (actions_ == nullptr) actions_ = std::make_shared<std::deque<std::shared_ptr<Action>>>();
  actions_->push_back(std::move(action));
}

bool ActionSequence::IsRepeating(ActionHandler&) {
  return false;
}

}  // namespace Async
