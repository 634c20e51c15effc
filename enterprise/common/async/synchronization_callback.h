#pragma once

#include <atomic>
#include <cstdint>

#include "core/common/non_copyable.h"
#include "enterprise/common/async/job.h"

namespace Async {

// One link of a thread's chain of callbacks. A thread that is about to block tells the chain, from
// the innermost callback outwards, so that work which only this thread would carry on can move to
// another one.
//
// Threads: the chain belongs to one thread. The counts are atomic, because a metronome changes and
// reads those of one callback from a thread of its own.
class SynchronizationCallback : public Common::NonCopyable {
 public:
  virtual ~SynchronizationCallback() = default;
  virtual SynchronizationCallback* GetNext() { return Next; }
  virtual void SetNext(SynchronizationCallback* callback) { Next = callback; }
  // The thread is about to wait for `job` (null: unknown). True hides the outer callbacks.
  virtual bool Invoke(Job* job) = 0;

  // The next outer callback, borrowed.
  SynchronizationCallback* Next = nullptr;
  // While positive, notifications stop here and are counted only.
  std::atomic<std::int32_t> SuppressCount{0};
  // Notifications that have reached this callback, suppressed ones included.
  std::atomic<std::uint32_t> CallCount{0};
};

// The chains of all threads. Each operation works on the chain of the calling thread.
class SynchronizationCallbackStorage : public Common::NonCopyable {
 public:
  virtual ~SynchronizationCallbackStorage() = default;
  // The innermost callback; null when the chain is empty.
  virtual SynchronizationCallback* Current() = 0;
  // `callback` is borrowed until it is popped and inherits the suppression of the one below.
  virtual void Push(SynchronizationCallback* callback) = 0;
  // Takes the innermost callback out and returns it. Its suppression goes to the next one, which
  // may deliver there what was suppressed before.
  virtual SynchronizationCallback* Pop() = 0;
  virtual void Notify(Job* job) = 0;
};

// The chains in one thread-local slot.
class TlsSynchronizationCallbackStorage : public SynchronizationCallbackStorage {
 public:
  TlsSynchronizationCallbackStorage();
  ~TlsSynchronizationCallbackStorage() override;

  SynchronizationCallback* Current() override;
  void Push(SynchronizationCallback* callback) override;
  SynchronizationCallback* Pop() override;
  void Notify(Job* job) override;

 private:
  const std::uint32_t key_;
};

// That of the async service, or without one a storage of the process itself. Never null.
SynchronizationCallbackStorage* GetSynchronizationCallbackStorage();
// To be called before the thread blocks; `job`, what it is going to wait for, may be null.
void NotifySynchronization(Job* job);

// A callback that is on the chain of its thread from construction to destruction: lives on one
// thread, in strict nesting.
class ScopedSynchronizationCallback : public SynchronizationCallback {
 public:
  ScopedSynchronizationCallback();
  // Pops the top of the chain, whatever it is.
  ~ScopedSynchronizationCallback() override;

  // Asserts that there was no next callback, then stores.
  void SetNext(SynchronizationCallback* callback) override;
  // Whether a new callback would go to the same chain: not if a service came or went meanwhile.
  bool IsOnCurrentChain() const { return storage_ == GetSynchronizationCallbackStorage(); }

 private:
  // Pushed here and popped here, also when a service comes or goes meanwhile.
  SynchronizationCallbackStorage* const storage_;
};

}  // namespace Async
