#pragma once

#include <memory>

#include "enterprise/common/async/metronome.h"
#include "enterprise/common/async/synchronization_callback.h"
#include "enterprise/common/async/work.h"

namespace Async {

// Gives an object a chance when the thread it lives on is about to block, or was busy for too long:
// if work is waiting, it goes to a thread of the async service, or without a service runs on the
// spot.
//
// Threads: construction, destruction and Invoke on one thread, in strict nesting with other scoped
// callbacks. Tick, and with it IsForkNeeded and CreateWork, also on a thread of the service at the
// same time: the derived class guards its state. Its destructor calls Stop, before this class's
// runs, because a tick may still be in one of its operations.
template <class Atomics>
class BasicSynchronizationFork : public ScopedSynchronizationCallback,
                                 public BasicMetronomeListener<Atomics> {
 public:
  // True never: the walk of the chain goes on to the outer callbacks.
  bool Invoke(Job* job) override;
  // One notification of this callback alone, with no job.
  bool Tick() override;
  // Whether work is waiting.
  virtual bool IsForkNeeded() = 0;
  // The work to be forked; null for none.
  virtual std::unique_ptr<Work> CreateWork() = 0;

  // Starts the metronome of the async service: if the thread hasn't come back by its tick, Tick is
  // called. Without a service nothing happens. Once in the life of the object.
  void Arm();

 protected:
  // The metronome that Arm waits for; null when there is no memory for one.
  static Metronome* GetMetronome(Service& service);

 private:
  class ForkJob;

  // Hands `work` to a thread of the async service, where it runs on its own: a failure of it is
  // traced and nothing else. False without a service; then the work stays with the caller.
  static bool Fork(std::unique_ptr<Work>& work);
};

extern template class BasicSynchronizationFork<ThreadAtomics>;
using SynchronizationFork = BasicSynchronizationFork<ThreadAtomics>;

}  // namespace Async
