#pragma once

#include <memory>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/async/job_control.h"

namespace Async {

namespace CyclicRunnerImpl {

// Performs an action again and again, each pass from the end of the one before, until a pass fails
// or the job is cancelled. So it never ends with success. Any exception out of the action's Perform
// is a failure.
//
// Passes that complete inside their Perform run in a loop on one constant stack. After
// kMaxImmediatePasses of them on one thread the cycle goes on by way of the async service, when
// there is one, so that the thread that started it gets back to its own work. A service that
// doesn't run the work is asked again as many passes later.
//
// Threads: a pass ends on any; Cancel any. Lifetime: whoever started the cycle holds the job until
// the handler has been told; nothing else does while a pass runs elsewhere.
class CyclicRunner : public BaseJob,
                     public ActionHandler,
                     public std::enable_shared_from_this<CyclicRunner> {
 public:
  static constexpr unsigned int kMaxImmediatePasses = 256;

  // Starts the cycle; the first passes may run here.
  static std::shared_ptr<Job> Start(std::shared_ptr<Action> action, ActionHandler& handler);

  // Use Start.
  CyclicRunner(std::shared_ptr<Action> action, ActionHandler& handler);

  // "ASYNC: Cyclic action execution job."
  JobDescription Describe() override;
  void Cancel() override { control_.Cancel(); }
  // The end of a pass.
  void Completed(Common::Error result) override;

 private:
  struct PassLoop;
  class Resumption;

  void RunPasses();
  bool ResumeElsewhere();

  const std::shared_ptr<Action> action_;
  ActionHandler* const handler_;
  JobControl control_;

  static thread_local PassLoop* innermost_loop_;
};

}  // namespace CyclicRunnerImpl

namespace Detail {

// Performing it starts a cycle over its action.
class CyclicRunAction : public Action {
 public:
  explicit CyclicRunAction(std::shared_ptr<Action> action);
  std::shared_ptr<Job> Perform(ActionHandler& handler) override;

 private:
  const std::shared_ptr<Action> action_;
};

}  // namespace Detail

// An action that runs a cycle over `action`.
std::unique_ptr<Detail::CyclicRunAction> MakeCyclic(std::unique_ptr<Action> action);
// Runs a cycle at once. `handler` is borrowed until it is told, with a failure.
std::shared_ptr<Job> RunCyclic(std::unique_ptr<Action> action, ActionHandler& handler);

}  // namespace Async
