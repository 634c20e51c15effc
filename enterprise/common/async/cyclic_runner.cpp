#include "enterprise/common/async/cyclic_runner.h"

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/safe_action.h"
#include "enterprise/common/async/service.h"

namespace Async {

namespace {
constexpr Common::SourceFile kSource{"enterprise/common/async/cyclic_runner"};
}  // namespace

namespace CyclicRunnerImpl {

// Marks that a runner is inside its loop on this thread. A pass that ends there with success only
// sets `again`; the loop looks at nothing but this marker afterwards, as the runner may be gone.
struct CyclicRunner::PassLoop {
  explicit PassLoop(std::uint64_t owner) : runner(owner), outer(innermost_loop_) {
    innermost_loop_ = this;
  }
  ~PassLoop() { innermost_loop_ = outer; }
  PassLoop(const PassLoop&) = delete;
  PassLoop& operator=(const PassLoop&) = delete;

  const std::uint64_t runner;  // its number as a job: another one may come to its address
  PassLoop* const outer;
  bool again = false;
};

thread_local CyclicRunner::PassLoop* CyclicRunner::innermost_loop_ = nullptr;

// Carries a cycle to a thread of the service. Owns itself until the service has told the end of the
// work.
class CyclicRunner::Resumption : public ActionHandler {
 public:
  // False if the service doesn't take the work: the cycle goes on where it is.
  static bool Run(Service& service, std::shared_ptr<CyclicRunner> runner) {
    const auto resumption = std::make_shared<Resumption>(std::move(runner));
    resumption->self_ = resumption;
    ActionRefAdaptor perform([&service, &resumption](ActionHandler& handler) {
      return service.PerformWork(resumption->work_, handler);
    });
    SafeAction safe_perform(perform);
    resumption->control_.Run(safe_perform, *resumption, nullptr);
    return !resumption->met_.exchange(true);
  }

  explicit Resumption(std::shared_ptr<CyclicRunner> runner) : work_(std::move(runner)) {}

  void Completed(Common::Error) override {
    const std::shared_ptr<Resumption> self = std::move(self_);
    // If the service has not run the work, the cycle goes on behind Run, or here if Run has
    // returned.
    if (work_.started || !met_.exchange(true)) return;
    const std::shared_ptr<CyclicRunner> runner = std::move(work_.runner);
    runner->RunPasses();
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
  std::atomic<bool> met_{false};  // by the end of Run or of a hand-over in vain, whichever is first
  JobControl control_;
};

std::shared_ptr<Job> CyclicRunner::Start(std::shared_ptr<Action> action, ActionHandler& handler) {
  std::shared_ptr<CyclicRunner> runner;
  try {
    runner = std::make_shared<CyclicRunner>(std::move(action), handler);
  } catch (const std::bad_alloc&) {
    throw Common::Error::OutOfMemory();
  }
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
    if (loop->runner == GetId()) {
      loop->again = true;
      return;
    }
  }
  RunPasses();
}

void CyclicRunner::RunPasses() {
  PassLoop loop(GetId());
  SafeAction pass(*action_);
  for (unsigned int passes = 0;; ++passes) {
    if (passes == kMaxImmediatePasses) {
      if (ResumeElsewhere()) return;
      passes = 0;
    }
    loop.again = false;
    control_.Run(pass, *this, this);
    // Unless a pass ended here with success, another thread has the cycle or has ended it.
    if (!loop.again) return;
  }
}

bool CyclicRunner::ResumeElsewhere() {
  Service* service = nullptr;
  GetAsyncService(&service);
  if (service == nullptr) return false;
  try {
    return Resumption::Run(*service, shared_from_this());
  } catch (const std::bad_alloc&) {
    return false;
  }
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
