#include "enterprise/common/async/cyclic_runner.h"

#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/service.h"

namespace Async {

namespace {
constexpr Common::SourceFile kSource{"enterprise/common/async/cyclic_runner"};
}  // namespace

namespace CyclicRunnerImpl {

// Marks that a runner is inside its loop on this thread. A pass that ends there with success only
// sets `again`; the loop looks at nothing but this marker afterwards, as the runner may be gone.
struct CyclicRunner::PassLoop {
  explicit PassLoop(CyclicRunner* owner) : runner(owner), outer(innermost_loop_) {
    innermost_loop_ = this;
  }
  ~PassLoop() { innermost_loop_ = outer; }
  PassLoop(const PassLoop&) = delete;
  PassLoop& operator=(const PassLoop&) = delete;

  CyclicRunner* const runner;
  PassLoop* const outer;
  bool again = false;
};

thread_local CyclicRunner::PassLoop* CyclicRunner::innermost_loop_ = nullptr;

// Carries a cycle to a thread of the service. Owns itself until the service has told the end of the
// work. If the work could not run, its failure ends the cycle.
class CyclicRunner::Resumption : public ActionHandler {
 public:
  static void Run(Service& service, std::shared_ptr<CyclicRunner> runner) {
    const auto resumption = std::make_shared<Resumption>(std::move(runner));
    resumption->self_ = resumption;
    ActionRefAdaptor perform([&service, &resumption](ActionHandler& handler) {
      return service.PerformWork(resumption->work_, handler);
    });
    resumption->control_.Run(perform, *resumption, nullptr);
  }

  explicit Resumption(std::shared_ptr<CyclicRunner> runner) : work_(std::move(runner)) {}

  void Completed(Common::Error result) override {
    const std::shared_ptr<Resumption> self = std::move(self_);
    if (result.IsFailure() && !work_.started) {
      const std::shared_ptr<CyclicRunner> runner = std::move(work_.runner);
      runner->handler_->Completed(std::move(result));
    }
  }

 private:
  struct PassWork : Work {
    explicit PassWork(std::shared_ptr<CyclicRunner> owner) : runner(std::move(owner)) {}
    Common::Error Execute() override {
      started = true;
      const std::shared_ptr<CyclicRunner> kept = std::move(runner);
      kept->RunPasses();
      return {};
    }
    std::shared_ptr<CyclicRunner> runner;
    bool started = false;
  };

  PassWork work_;
  std::shared_ptr<Resumption> self_;
  JobControl control_;
};

std::shared_ptr<Job> CyclicRunner::Start(std::shared_ptr<Action> action, ActionHandler& handler) {
  const auto runner = std::make_shared<CyclicRunner>(std::move(action), handler);
  runner->RunPasses();
  return runner;
}

CyclicRunner::CyclicRunner(std::shared_ptr<Action> action, ActionHandler& handler)
    : action_(std::move(action)), handler_(&handler) {}

JobDescription CyclicRunner::Describe() {
  return {kSource.At("Describe", 20), Common::GetMessageText(Common::MessageRow::AsyncCyclicJob)};
}

void CyclicRunner::Completed(Common::Error result) {
  if (result.IsFailure()) {
    handler_->Completed(std::move(result));
    return;
  }
  for (PassLoop* loop = innermost_loop_; loop != nullptr; loop = loop->outer) {
    if (loop->runner == this) {
      loop->again = true;
      return;
    }
  }
  RunPasses();
}

void CyclicRunner::RunPasses() {
  PassLoop loop(this);
  for (unsigned int passes = 0;; ++passes) {
    if (passes >= kMaxImmediatePasses && ResumeElsewhere()) return;
    loop.again = false;
    control_.Run(*action_, *this, this);
    // Unless a pass ended here with success, another thread has the cycle or has ended it.
    if (!loop.again) return;
  }
}

bool CyclicRunner::ResumeElsewhere() {
  Service* service = nullptr;
  GetAsyncService(&service);
  if (service == nullptr) return false;
  Resumption::Run(*service, shared_from_this());
  return true;
}

}  // namespace CyclicRunnerImpl

namespace Detail {

CyclicRunAction::CyclicRunAction(std::shared_ptr<Action> action) : action_(std::move(action)) {}

std::shared_ptr<Job> CyclicRunAction::Perform(ActionHandler& handler) {
  return CyclicRunnerImpl::CyclicRunner::Start(action_, handler);
}

}  // namespace Detail

std::unique_ptr<Detail::CyclicRunAction> MakeCyclic(std::unique_ptr<Action> action) {
  return std::make_unique<Detail::CyclicRunAction>(std::shared_ptr<Action>(std::move(action)));
}

std::shared_ptr<Job> RunCyclic(std::unique_ptr<Action> action, ActionHandler& handler) {
  return CyclicRunnerImpl::CyclicRunner::Start(std::shared_ptr<Action>(std::move(action)), handler);
}

}  // namespace Async
