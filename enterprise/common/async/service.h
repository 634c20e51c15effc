#pragma once

#include <memory>

#include "core/common/non_copyable.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/async/synchronization_callback.h"
#include "enterprise/common/async/work.h"

// Port: what the framework calls of the async service, which has the threads and the timers. A
// process may have none; then callbacks live in a storage of the process itself, forked work runs
// where it was forked, and no metronome is started.

namespace Async {

// Knows of itself whether a beat is the tick it waits for.
class BeatWatcher {
 public:
  // A beat. True: it is the tick, and no call follows. Under a lock of the beats: calls nothing
  // that may block.
  virtual bool OnBeat() noexcept = 0;

 protected:
  ~BeatWatcher() = default;
};

// The beats behind the ticks of a metronome, an interval apart or more. For waits that are given up
// and begun again so often that they are marked at the one who waits, and not told to the
// metronome.
class Beats : public Common::NonCopyable {
 public:
  // Asks `watcher` at each beat, and tells `handler` success behind the first true, on a thread of
  // the service. The returned job can be cancelled; the end is told all the same, and from then on
  // `watcher` isn't called.
  virtual std::shared_ptr<Job> Watch(BeatWatcher& watcher, ActionHandler& handler) = 0;

 protected:
  ~Beats() = default;
};

class Metronome : public Common::NonCopyable {
 public:
  // Tells `handler` success when the next tick comes, on a thread of the service. The returned job
  // can be cancelled; the end is told all the same.
  virtual std::shared_ptr<Job> WaitTick(ActionHandler& handler) = 0;
  // Null: it shows its ticks only.
  virtual Beats* GetBeats() { return nullptr; }

 protected:
  ~Metronome() = default;
};

class MetronomeSource : public Common::NonCopyable {
 public:
  // A metronome of the given interval, owned by the source. The unit is the source's own.
  virtual Metronome* GetMetronome(unsigned int interval) = 0;

 protected:
  ~MetronomeSource() = default;
};

// Threads: any. What it returns belongs to it and lives as long as it does.
class Service : public Common::NonCopyable {
 public:
  // Runs work.Execute() on a thread of the service, never inside this call, and tells its result to
  // `handler`. Both are borrowed until then.
  virtual std::shared_ptr<Job> PerformWork(Work& work, ActionHandler& handler) = 0;
  // Serves the calling thread. Never null.
  virtual SynchronizationCallbackStorage* GetSynchronizationCallbackStorage() = 0;
  virtual MetronomeSource* GetMetronomeSource() = 0;

 protected:
  ~Service() = default;
};

// Writes the process's service, or leaves the null that stands there. Threads: any.
using ServiceProvider = void (*)(Service** service);

// What GetAsyncService asks; null, as at start, for no service. Returns the former one. The service
// must stay until everything that was performed or pushed through it has ended.
ServiceProvider SetServiceProvider(ServiceProvider provider) noexcept;

}  // namespace Async

// Writes the process's async service into `*service`, which the caller has set to null, or leaves
// it null: there is none.
void GetAsyncService(Async::Service** service);
