#pragma once

#include <utility>

#include "enterprise/common/async/synchronization_fork_inl.h"
#include "enterprise/common/async/tail_recursion.h"

namespace Async {

// Counts a loop, or work that will run one, while it lives.
template <class Atomics>
class BasicTailRecursionController<Atomics>::LoopCount : public Common::NonCopyable {
 public:
  explicit LoopCount(BasicTailRecursionController& controller,
                     std::shared_ptr<void> keep_alive = nullptr)
      : keep_alive_(std::move(keep_alive)), controller_(controller) {
    controller_.loops_.fetch_add(1);
  }
  ~LoopCount() { controller_.loops_.fetch_sub(1); }

 private:
  const std::shared_ptr<void> keep_alive_;
  BasicTailRecursionController& controller_;
};

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
      if (step_ended_) controller_.available_ = true;
      if (controller_.detachment_ == this) controller_.detachment_ = nullptr;
    }
    this->Stop();
  }

  bool IsForkNeeded() override {
    if (PublishEndedStep()) return true;
    typename Atomics::MutexLock lock(controller_.mutex_);
    return controller_.available_;
  }

  void MarkStepEnded() { step_ended_ = true; }

  // Whether the pass may start the next step as it stands: the last one was marked, and nothing has
  // told a new detachment from this one.
  bool TakeEndedStep() {
    if (!step_ended_) return false;
    if (this->CallCount.load() != 0 || this->SuppressCount.load() != 0 ||
        !this->IsOnCurrentChain()) {
      PublishEndedStep();
      return false;
    }
    step_ended_ = false;
    return true;
  }

  std::unique_ptr<Work> CreateWork() override {
    auto process = [controller = &controller_] { controller->Process(); };
    return std::make_unique<SilentWorkAdaptor<decltype(process), std::shared_ptr<void>>>(
        process, std::make_shared<LoopCount>(controller_, controller_.GetKeepAlive()));
  }

 private:
  // Frees the controller for all threads if the step was only marked.
  bool PublishEndedStep() {
    if (!step_ended_) return false;
    step_ended_ = false;
    ProcessingDetachment* detachment = nullptr;
    controller_.Release(detachment);
    return true;
  }

  BasicTailRecursionController& controller_;
  // Used by the thread of the pass alone: a tick, which comes from another one, needs an armed
  // detachment, and none is armed whose steps are marked.
  bool step_ended_ = false;
};

template <class Atomics>
void BasicTailRecursionController<Atomics>::Process() {
  bool recursing = false;
  std::shared_ptr<void> keep_alive;  // declared first: outlives the detachment of every pass
  const LoopCount count(*this);
  for (;;) {
    ProcessingDetachment detachment(*this);
    recursing = TryAcquire(recursing, &detachment);
    if (!recursing) break;
    if (keep_alive == nullptr) keep_alive = GetKeepAlive();
    do {
      Iterate();
    } while (detachment.TakeEndedStep());
  }
}

template <class Atomics>
void BasicTailRecursionController<Atomics>::Continue() {
  if (MarkStepEnded()) return;
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
bool BasicTailRecursionController<Atomics>::MarkStepEnded() {
  // Whoever started the step wrote both fields before it, so a thread that finds itself in the
  // first one also sees the second.
  if (owner_thread_.load(std::memory_order_relaxed) != std::this_thread::get_id()) return false;
  if (detachment_ == nullptr || loops_.load() != 1) return false;
  Service* service = nullptr;
  GetAsyncService(&service);
  if (service != nullptr) return false;  // a metronome is to watch this thread
  detachment_->MarkStepEnded();
  return true;
}

template <class Atomics>
bool BasicTailRecursionController<Atomics>::TryAcquire(bool release_owner,
                                                       ProcessingDetachment* detachment) {
  typename Atomics::MutexLock lock(mutex_);
  if (available_) {
    available_ = false;
    owner_thread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    detachment_ = detachment;
    return true;
  }
  if (release_owner &&
      owner_thread_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
    owner_thread_.store({}, std::memory_order_relaxed);
  }
  return false;
}

template <class Atomics>
bool BasicTailRecursionController<Atomics>::Release(ProcessingDetachment*& detachment) {
  typename Atomics::MutexLock lock(mutex_);
  detachment = std::exchange(detachment_, nullptr);
  available_ = true;
  return owner_thread_.load(std::memory_order_relaxed) != std::this_thread::get_id();
}

}  // namespace Async
