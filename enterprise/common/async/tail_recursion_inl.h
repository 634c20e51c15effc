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

// The mark of a step that has ended in the pass of its loop: who takes it has the controller. Set
// by the thread of the pass alone. While it is watched, beats let it grow old on another thread,
// and the tick finds none that its thread has taken.
template <class Atomics>
class BasicTailRecursionController<Atomics>::StepMark {
 public:
  void Set(bool watched) { word_.store(watched ? kFresh : kUnwatched, std::memory_order_release); }

  // By the thread of the pass, to start the next step. False: there is none, or its tick has come.
  bool TakeBeforeTick() {
    std::uintptr_t word = word_.load(std::memory_order_relaxed);
    if (word == kUnwatched) {
      word_.store(kNone, std::memory_order_relaxed);
      return true;
    }
    // The second try is for a beat that came in between.
    return (word == kFresh && word_.compare_exchange_strong(word, kNone)) ||
           (word == kOld && word_.compare_exchange_strong(word, kNone));
  }

  bool Take() {
    return word_.load(std::memory_order_relaxed) != kNone && word_.exchange(kNone) != kNone;
  }

  // A beat. True: the mark has been there at the last one, a whole interval ago. This is its tick.
  bool GrowOld() {
    std::uintptr_t word = word_.load();
    if (word == kFresh) word_.compare_exchange_strong(word, kOld);
    return word == kOld && word_.compare_exchange_strong(word, kTicked);
  }

 private:
  static constexpr std::uintptr_t kNone = 0;
  static constexpr std::uintptr_t kUnwatched = 1;
  static constexpr std::uintptr_t kFresh = 2;   // set since the last beat
  static constexpr std::uintptr_t kOld = 3;     // before it
  static constexpr std::uintptr_t kTicked = 4;  // the tick is under way

  typename Atomics::Counter word_{kNone};
};

// Stands on the stack of each pass of the loop, so that a thread that blocks or stalls in a step
// doesn't hold up the next one.
template <class Atomics>
class BasicTailRecursionController<Atomics>::ProcessingDetachment
    : public BasicSynchronizationFork<Atomics>,
      private BeatWatcher {
 public:
  explicit ProcessingDetachment(BasicTailRecursionController& controller)
      : controller_(controller) {}

  ~ProcessingDetachment() override {
    const bool step_ended = mark_.Take();
    {
      typename Atomics::MutexLock lock(controller_.mutex_);
      if (step_ended) controller_.available_ = true;
      if (controller_.detachment_ == this) controller_.detachment_ = nullptr;
    }
    this->Stop();
  }

  bool IsForkNeeded() override {
    if (mark_.Take()) {
      // From here on the next step may start on any thread.
      ProcessingDetachment* detachment = nullptr;
      controller_.Release(detachment);
      return true;
    }
    typename Atomics::MutexLock lock(controller_.mutex_);
    return controller_.available_;
  }

  // False: not possible, nothing is marked.
  bool MarkStepEnded() {
    Service* service = nullptr;
    GetAsyncService(&service);
    if (service != nullptr && !is_watched_) {
      metronome_ = this->GetMetronome(*service);
      Beats* const beats = metronome_ != nullptr ? metronome_->GetBeats() : nullptr;
      if (beats == nullptr) return false;
      is_watched_ = true;
      this->Start(beats, *this);
    }
    mark_.Set(service != nullptr);
    return true;
  }

  // Behind a step that wasn't marked.
  void Arm() {
    if (metronome_ != nullptr) {
      this->Start(metronome_);
    } else {
      BasicSynchronizationFork<Atomics>::Arm();
    }
  }

  // Whether the pass may start the next step as it stands: the last one was marked, and nothing has
  // told a new detachment from this one.
  bool TakeEndedStep() {
    return this->CallCount.load() == 0 && this->SuppressCount.load() == 0 &&
           !watch_has_ended_.load(std::memory_order_relaxed) && this->IsOnCurrentChain() &&
           mark_.TakeBeforeTick();
  }

  std::unique_ptr<Work> CreateWork() override {
    auto loop = [controller = &controller_] {
      std::shared_ptr<void> keep_alive;
      controller->Loop(keep_alive);  // counted by the guard
    };
    return std::make_unique<SilentWorkAdaptor<decltype(loop), std::shared_ptr<void>>>(
        loop, std::make_shared<LoopCount>(controller_, controller_.GetKeepAlive()));
  }

  // Of the wait for a tick.
  void Completed(Common::Error result) override {
    watch_has_ended_.store(true, std::memory_order_relaxed);
    BasicSynchronizationFork<Atomics>::Completed(std::move(result));
  }

 private:
  bool OnBeat() noexcept override { return mark_.GrowOld(); }

  BasicTailRecursionController& controller_;
  StepMark mark_;
  Metronome* metronome_ = nullptr;  // once asked for
  bool is_watched_ = false;         // since the first step that was marked beside a service
  std::atomic<bool> watch_has_ended_{false};  // also for want of memory: the next pass begins anew
};

template <class Atomics>
void BasicTailRecursionController<Atomics>::Process() {
  std::shared_ptr<void> keep_alive;  // outlives the count
  const LoopCount count(*this);
  Loop(keep_alive);
}

template <class Atomics>
void BasicTailRecursionController<Atomics>::Loop(std::shared_ptr<void>& keep_alive) {
  bool recursing = false;
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
  return detachment_->MarkStepEnded();
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
