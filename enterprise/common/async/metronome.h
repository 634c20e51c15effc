#pragma once

#include <cstdint>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/service.h"

namespace Async {

// Waits for one tick of a metronome and can be stopped while it waits. Made for one wait: another
// one needs another listener.
//
// Threads: Start and Stop on the owner's; Tick and Completed on a thread of the service, or inside
// Start. A listener that was started must have ended or been stopped before it is destroyed.
template <class Atomics>
class BasicMetronomeListener : public ActionHandler {
 public:
  BasicMetronomeListener() = default;

  // Begins the wait. False, after an assertion, on a listener that was started before.
  bool Start(Metronome* metronome);
  // The same for the tick that `watcher` picks out of the beats; it is called until the wait's end.
  bool Start(Beats* beats, BeatWatcher& watcher);
  // Ends the wait. When it returns, no Tick of this listener runs any more and none will; a last
  // one may have run during the call. Must not be called from inside Tick, which it would wait for.
  void Stop();

  // The end of the wait: success is a tick, a failure or a cancel is none.
  void Completed(Common::Error result) override;
  // The tick. Its result is dropped here.
  virtual bool Tick() = 0;

 private:
  struct SharedEvent;

  // `state_`: one of these, or the address of the SharedEvent of a Stop that waits.
  static constexpr std::uintptr_t kStateIdle = 0;
  static constexpr std::uintptr_t kStateWorking = 1;
  static constexpr std::uintptr_t kStateFinished = 2;

  bool Start(Action& wait);
  void FinishWait();

  // Guards the states of all listeners; never held across a call to a control or to Tick.
  static inline typename Atomics::StaticMutex state_mutex_;

  BasicJobControl<Atomics> control_;
  std::uintptr_t state_ = kStateIdle;
};

extern template class BasicMetronomeListener<ThreadAtomics>;
using MetronomeListener = BasicMetronomeListener<ThreadAtomics>;

}  // namespace Async
