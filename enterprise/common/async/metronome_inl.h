#pragma once

#include "core/common/non_copyable.h"
#include "core/common/unix/safe_assert.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/metronome.h"

namespace Async {

// What a Stop waits on. Shared by Stop and Completed: whoever counts down to 0 deletes it.
template <class Atomics>
class BasicMetronomeListener<Atomics>::SharedEvent : public Common::NonCopyable {
 public:
  void AddReference() { count_.fetch_add(1); }
  void Release() {
    if (count_.fetch_sub(1) == 1) delete this;
  }
  void Set() { event_.Set(); }
  void Wait() { event_.Wait(); }

 private:
  typename Atomics::Event event_{false, false};
  typename Atomics::Counter count_{1};
};

template <class Atomics>
bool BasicMetronomeListener<Atomics>::Start(Metronome* metronome) {
  bool first = false;
  {
    typename Atomics::StaticMutexLock lock(state_mutex_);
    if (state_ == kStateIdle) {
      state_ = kStateWorking;
      first = true;
    }
  }
  if (!first) {
    Common::SafeAssert("!\"Metronome logic broken.\"", "enterprise/common/async/metronome", 91);
    return false;
  }
  ActionRefAdaptor wait(
      [metronome](ActionHandler& handler) { return metronome->WaitTick(handler); });
  control_.Run(wait, *this, nullptr);
  return true;
}

template <class Atomics>
void BasicMetronomeListener<Atomics>::Stop() {
  SharedEvent* event = nullptr;
  {
    typename Atomics::StaticMutexLock lock(state_mutex_);
    if (state_ == kStateIdle || state_ == kStateFinished) return;
    if (state_ == kStateWorking) {
      event = new SharedEvent;
      state_ = reinterpret_cast<std::uintptr_t>(event);
    }
  }
  if (event == nullptr) {
    // A second Stop at the same time: the first one's event stays where it is.
    Common::SafeAssert("State == StateWorking", "enterprise/common/async/metronome", 112);
    return;
  }
  control_.Cancel();
  event->Wait();
  event->Release();
}

template <class Atomics>
void BasicMetronomeListener<Atomics>::Completed(Common::Error result) {
  // The wait is over also when Tick throws: a Stop must not wait for good.
  struct Finish {
    ~Finish() { listener->FinishWait(); }
    BasicMetronomeListener* listener;
  } finish{this};
  if (!result.IsFailure()) Tick();
}

template <class Atomics>
void BasicMetronomeListener<Atomics>::FinishWait() {
  std::uintptr_t former;
  {
    typename Atomics::StaticMutexLock lock(state_mutex_);
    former = state_;
    state_ = kStateFinished;
  }
  // Without a waiting Stop the owner may destroy the listener from here on.
  if (former == kStateWorking || former == kStateIdle) return;
  auto* const event = reinterpret_cast<SharedEvent*>(former);
  event->AddReference();
  event->Set();
  event->Release();
}

}  // namespace Async
