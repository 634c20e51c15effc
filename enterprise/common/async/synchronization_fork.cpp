#include "enterprise/common/async/synchronization_fork.h"

#include <utility>

#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/synchronization_fork_inl.h"

namespace Async {

namespace {

// The life of one forked piece of work: it owns itself until the work has ended.
class ForkJob : public ActionHandler {
 public:
  static void Run(Service& service, std::unique_ptr<Work> work) {
    // Held here too: the work may end inside control.Run, which would otherwise destroy the job.
    const auto job = std::make_shared<ForkJob>(std::move(work));
    job->self_ = job;
    ActionRefAdaptor perform([&service, &job](ActionHandler& handler) {
      return service.PerformWork(*job->work_, handler);
    });
    job->control_.Run(perform, *job, nullptr);
  }

  explicit ForkJob(std::unique_ptr<Work> work) : work_(std::move(work)) {}

  void Completed(Common::Error result) override {
    const std::shared_ptr<ForkJob> self = std::move(self_);
    if (result.IsFailure()) Common::Trace(Common::kTraceDebug, result);
  }

 private:
  std::unique_ptr<Work> work_;  // destroyed last: its guard may hold what the rest refers to
  std::shared_ptr<ForkJob> self_;
  JobControl control_;
};

}  // namespace

bool ForkWork(std::unique_ptr<Work>& work) {
  Service* service = nullptr;
  GetAsyncService(&service);
  if (service == nullptr) return false;
  ForkJob::Run(*service, std::move(work));
  return true;
}

template class BasicSynchronizationFork<ThreadAtomics>;

}  // namespace Async
