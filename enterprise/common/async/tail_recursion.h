#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "core/common/non_copyable.h"
#include "enterprise/common/async/synchronization_fork.h"

namespace Async {

// Runs steps one after the other on a stack that doesn't grow with their number, although each step
// is started by the end of the one before.
//
// The thread that starts a step stays in a loop. A step that ends on this thread only marks the
// controller as free and returns, and the loop starts the next one. A step that ends on another
// thread continues the loop there. A thread that blocks or stalls while the next step could start
// hands the loop to a thread of the async service.
//
// As long as no other thread is in the loop that may come back to take the next step, a step that
// ends in the loop is only marked in the pass that stands on the thread's stack: no lock, no
// reference is taken. A thread that blocks behind such a step publishes the mark first. Beside a
// service a metronome watches the mark: the pass begins the wait for a tick once, and each mark
// begins it anew. The tick comes to a mark that has stood for a whole interval. A metronome that
// shows no beats is told of each step instead, under the lock.
//
//   available  owner      meaning
//   true       any        a step has ended, the next one may begin
//   false      a thread   a step is in progress and this thread is in the loop
//   false      none       a step is in progress and nobody is in the loop
//
// Threads: the one step and everything it touches are used by one thread at a time, ordered by the
// mutex, which is never held during a call out.
template <class Atomics>
class BasicTailRecursionController : public Common::NonCopyable {
 public:
  virtual ~BasicTailRecursionController() = default;
  // Keeps the object alive while a thread is in the loop.
  virtual std::shared_ptr<void> GetKeepAlive() = 0;
  // Starts one step, whose end leads to Continue, now or later, on any thread; or to none, if it
  // was the last.
  virtual void Iterate() = 0;

  // The loop. Called once to start, when an owner holds the object.
  void Process();
  // The step has ended and the next one may begin. May run the loop before it returns.
  void Continue();

 private:
  class LoopCount;
  class ProcessingDetachment;
  class StepMark;

  // The passes. The caller counts the loop; `keep_alive` is set with the first step, to be dropped
  // behind the count.
  void Loop(std::shared_ptr<void>& keep_alive);
  // The short way of a step that has ended inside the loop of this thread. False: not possible.
  bool MarkStepEnded();
  // True: the calling thread holds the controller and starts the next step.
  bool TryAcquire(bool release_owner, ProcessingDetachment* detachment);
  // Frees the controller and takes its detachment out. True if the calling thread isn't in the
  // loop.
  bool Release(ProcessingDetachment*& detachment);

  // Who may take a step: threads in the loop, and forked work until it has ended.
  typename Atomics::Counter loops_{0};
  typename Atomics::Mutex mutex_;  // guards changes of the fields below
  bool available_ = true;
  std::atomic<std::thread::id> owner_thread_;   // started the current step, while in the loop
  ProcessingDetachment* detachment_ = nullptr;  // of the pass that holds the controller
};

extern template class BasicTailRecursionController<ThreadAtomics>;
using TailRecursionController = BasicTailRecursionController<ThreadAtomics>;

}  // namespace Async
