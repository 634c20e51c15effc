#pragma once

#include "core/common/unix/safe_assert.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/metronome.h"
#include "enterprise/common/async/safe_action.h"

namespace Async {

// What a Stop waits on, on its stack. An event may be destroyed as soon as its Wait has returned,
// so Completed and Stop need no count of who still uses it, and a Stop can't run out of memory.
template <class Atomics>
struct BasicMetronomeListener<Atomics>::SharedEvent {
  typename Atomics::Event event{false, false};
};

template <class Atomics>
bool BasicMetronomeListener<Atomics>::Start(Metronome* metronome) {
  ActionRefAdaptor wait(
      [metronome](ActionHandler& handler) { return metronome->WaitTick(handler); });
  return Start(wait);
}

template <class Atomics>
bool BasicMetronomeListener<Atomics>::Start(Beats* beats, BeatWatcher& watcher) {
  ActionRefAdaptor wait(
      [beats, &watcher](ActionHandler& handler) { return beats->Watch(watcher, handler); });
  return Start(wait);
}

template <class Atomics>
bool BasicMetronomeListener<Atomics>::Start(Action& wait) {
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
  SafeAction safe_wait(wait);  // whatever it raises ends the wait: a Stop must not wait for good
  control_.Run(safe_wait, *this, nullptr);
  return true;
}

template <class Atomics>
void BasicMetronomeListener<Atomics>::Stop() {
  SharedEvent event;
  bool working = false;
  {
    typename Atomics::StaticMutexLock lock(state_mutex_);
    if (state_ == kStateIdle || state_ == kStateFinished) return;
    if (state_ == kStateWorking) {
      working = true;
      state_ = reinterpret_cast<std::uintptr_t>(&event);
    }
  }
  if (!working) {
    // A second Stop at the same time: the first one's event stays where it is.
    Common::SafeAssert("State == StateWorking", "enterprise/common/async/metronome", 112);
    return;
  }
  control_.Cancel();
  event.event.Wait();
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
  if (former <= kStateFinished) return;
  reinterpret_cast<SharedEvent*>(former)->event.Set();
}

}  // namespace Async
