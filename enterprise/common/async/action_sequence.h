#pragma once

#include <deque>
#include <memory>

#include "core/common/non_copyable.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"

namespace Async {

class ActionExecutor : public Common::NonCopyable {
 public:
  virtual ~ActionExecutor() = default;
  virtual void Execute(std::shared_ptr<Action> action) = 0;
};

// An action made of actions: performed one after another, each when the one before has completed,
// told once at the end. The first failure ends it; any exception out of a step's Perform is one.
// Steps that complete inside their Perform run on one constant stack, on the thread of Perform.
//
// A step that ends with kStopSequenceCode in its chain ends the sequence with success; in a
// repeating one kStopRepeatingCode does the same.
//
// A sequence may be performed more than once, and destroyed while its jobs run: they share the
// queue of actions. Threads: Perform and Execute on one; steps run where the step before completed.
// The returned job may be cancelled from any thread.
class ActionSequence : public Action, public ActionExecutor {
 public:
  // Without an action: success is told at once, and there is no job.
  std::shared_ptr<Job> Perform(ActionHandler& handler) override;
  // Appends. Null is ignored. Not while a job of this sequence runs, but for a step of the only
  // one: before it tells its end it may append what comes behind the others.
  void Execute(std::shared_ptr<Action> action) override;
  // Whether the steps begin again behind the last one.
  virtual bool IsRepeating(ActionHandler& handler);

 private:
  class ActionSequenceJob;

  std::shared_ptr<std::deque<std::shared_ptr<Action>>> actions_;  // null until the first action
};

}  // namespace Async
