#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>

#include "enterprise/common/async/service.h"
#include "enterprise/common/async/synchronization_callback.h"
#include "platform/async_service/elastic_pool.h"

namespace Platform {

// The async service on an elastic pool: work, ticks and their handlers run on its threads and never
// inside the call that asked for them. Intervals of metronomes are milliseconds; all waits for one
// interval share its beat, and a wait ends at the first beat that is a whole interval away.
//
// A process that links this folder has one: GetAsyncService makes it on the first call, the first
// work or tick starts threads, and at exit it is stopped: waits for ticks are cancelled, work that
// was handed over still runs, all threads end. Afterwards the process has no async service. So
// every cycle must be cancelled before main returns, and work that never ends keeps the process.
class AsyncService final : public Async::Service {
 public:
  AsyncService();
  ~AsyncService();

  // The job can be cancelled as long as the work hasn't begun; then the handler is told
  // 0xF90002 inside Cancel. A Common::Error out of the work is its result. Throws Common::Error
  // when the work can't be taken: no memory, no thread, or the service was stopped.
  std::shared_ptr<Async::Job> PerformWork(Async::Work& work,
                                          Async::ActionHandler& handler) override;
  Async::SynchronizationCallbackStorage* GetSynchronizationCallbackStorage() override;
  Async::MetronomeSource* GetMetronomeSource() override;

  // Ends everything in the order above. Not from a thread of the service.
  void Stop();

  ElasticPool& GetPool() { return pool_; }

 private:
  // A thread that is about to block no longer counts as one of the pool's.
  class CallbackStorage final : public Async::TlsSynchronizationCallbackStorage {
   public:
    explicit CallbackStorage(ElasticPool& pool) : pool_(pool) {}
    void Notify(Async::Job* job) override;

   private:
    ElasticPool& pool_;
  };

  class PoolMetronome;

  class Source final : public Async::MetronomeSource {
   public:
    explicit Source(ElasticPool& pool);
    ~Source();
    Async::Metronome* GetMetronome(unsigned int interval) override;
    void CancelAll();

   private:
    ElasticPool& pool_;
    std::mutex mutex_;
    std::map<unsigned int, std::unique_ptr<PoolMetronome>> metronomes_;  // by interval; only grows
    bool stopped_ = false;
  };

  ElasticPool pool_;
  CallbackStorage storage_;
  Source source_;
};

}  // namespace Platform
