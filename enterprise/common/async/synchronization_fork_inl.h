#pragma once

#include <memory>
#include <new>
#include <utility>

#include "core/common/trace.h"
#include "core/common/unix/trace.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/metronome_inl.h"
#include "enterprise/common/async/safe_action.h"
#include "enterprise/common/async/service.h"
#include "enterprise/common/async/synchronization_fork.h"

namespace Async {

// The interval asked of the service's metronome source, which knows its unit.
inline constexpr unsigned int kForkInterval = 60;

// The life of one forked piece of work: it owns itself until the work has ended.
template <class Atomics>
class BasicSynchronizationFork<Atomics>::ForkJob : public ActionHandler {
 public:
  static void Run(Service& service, std::unique_ptr<Work> work) {
    // Held here too: the work may end inside control.Run, which would otherwise destroy the job.
    const auto job = std::make_shared<ForkJob>(std::move(work));
    job->self_ = job;
    ActionRefAdaptor perform([&service, &job](ActionHandler& handler) {
      return service.PerformWork(*job->work_, handler);
    });
    SafeAction safe_perform(perform);
    job->control_.Run(safe_perform, *job, nullptr);
  }

  explicit ForkJob(std::unique_ptr<Work> work) : work_(std::move(work)) {}

  void Completed(Common::Error result) override {
    const std::shared_ptr<ForkJob> self = std::move(self_);
    if (result.IsFailure()) Common::Trace(Common::kTraceDebug, result);
  }

 private:
  std::unique_ptr<Work> work_;  // destroyed last: its guard may hold what the rest refers to
  std::shared_ptr<ForkJob> self_;
  BasicJobControl<Atomics> control_;
};

template <class Atomics>
bool BasicSynchronizationFork<Atomics>::Fork(std::unique_ptr<Work>& work) {
  Service* service = nullptr;
  GetAsyncService(&service);
  if (service == nullptr) return false;
  ForkJob::Run(*service, std::move(work));
  return true;
}

template <class Atomics>
bool BasicSynchronizationFork<Atomics>::Invoke(Job*) {
  if (!IsForkNeeded()) return false;
  std::unique_ptr<Work> work;
  try {
    work = CreateWork();
    if (work == nullptr || Fork(work)) return false;
  } catch (const std::bad_alloc&) {
    // Nothing is forked. Whoever is about to wait must get to its wait.
    return false;
  }
  const Common::Error result = work->Execute();
  if (result.IsFailure()) Common::Trace(Common::kTraceDebug, result);
  return false;
}

template <class Atomics>
bool BasicSynchronizationFork<Atomics>::Tick() {
  CallCount.fetch_add(1);
  if (SuppressCount.load() > 0) return true;
  return Invoke(nullptr);
}

template <class Atomics>
void BasicSynchronizationFork<Atomics>::Arm() {
  Service* service = nullptr;
  GetAsyncService(&service);
  if (service == nullptr) return;
  Metronome* const metronome = GetMetronome(*service);
  if (metronome == nullptr) return;  // the loop stays with its thread
  this->Start(metronome);
}

template <class Atomics>
Metronome* BasicSynchronizationFork<Atomics>::GetMetronome(Service& service) {
  try {
    return service.GetMetronomeSource()->GetMetronome(kForkInterval);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace Async
