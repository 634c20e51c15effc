#pragma once

#include <utility>

#include "enterprise/common/async/synchronization_fork_inl.h"
#include "enterprise/common/async/tail_recursion.h"

namespace Async {

// Stands on the stack of each pass of the loop, so that a thread that blocks or stalls in a step
// doesn't hold up the next one.
template <class Atomics>
class BasicTailRecursionController<Atomics>::ProcessingDetachment
    : public BasicSynchronizationFork<Atomics> {
 public:
  explicit ProcessingDetachment(BasicTailRecursionController& controller)
      : controller_(controller) {}

  ~ProcessingDetachment() override {
    {
      typename Atomics::MutexLock lock(controller_.mutex_);
      if (controller_.detachment_ == this) controller_.detachment_ = nullptr;
    }
    this->Stop();
  }

  bool IsForkNeeded() override {
    typename Atomics::MutexLock lock(controller_.mutex_);
    return controller_.available_;
  }

  std::unique_ptr<Work> CreateWork() override {
    auto process = [controller = &controller_] { controller->Process(); };
    return std::make_unique<SilentWorkAdaptor<decltype(process), std::shared_ptr<void>>>(
        process, controller_.GetKeepAlive());
  }

 private:
  BasicTailRecursionController& controller_;
};

template <class Atomics>
void BasicTailRecursionController<Atomics>::Process() {
  bool recursing = false;
  std::shared_ptr<void> keep_alive;  // declared first: outlives the detachment of every pass
  for (;;) {
    ProcessingDetachment detachment(*this);
    recursing = TryAcquire(recursing, &detachment);
    if (!recursing) break;
    if (keep_alive == nullptr) keep_alive = GetKeepAlive();
    Iterate();
  }
}

template <class Atomics>
void BasicTailRecursionController<Atomics>::Continue() {
  const std::shared_ptr<void> keep_alive = GetKeepAlive();
  ProcessingDetachment* detachment = nullptr;
  if (Release(detachment)) {
    Process();
  } else if (detachment != nullptr) {
    // It stands further down on this thread's stack. From now on the next step may start, and if
    // this thread doesn't come back to its loop in time, the metronome moves the loop.
    detachment->Arm();
  }
}

template <class Atomics>
bool BasicTailRecursionController<Atomics>::TryAcquire(bool release_owner,
                                                       ProcessingDetachment* detachment) {
  typename Atomics::MutexLock lock(mutex_);
  if (available_) {
    available_ = false;
    owner_thread_ = std::this_thread::get_id();
    detachment_ = detachment;
    return true;
  }
  if (release_owner && owner_thread_ == std::this_thread::get_id()) owner_thread_ = {};
  return false;
}

template <class Atomics>
bool BasicTailRecursionController<Atomics>::Release(ProcessingDetachment*& detachment) {
  typename Atomics::MutexLock lock(mutex_);
  detachment = std::exchange(detachment_, nullptr);
  available_ = true;
  return owner_thread_ != std::this_thread::get_id();
}

}  // namespace Async
