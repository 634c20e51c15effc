#include "platform/async_service/async_service.h"

#include <atomic>
#include <cstdlib>
#include <exception>
#include <new>
#include <utility>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job.h"

namespace Platform {

namespace {

constexpr Common::SourceFile kSource{"platform/async_service/async_service"};

// One piece of work on its way through the pool.
class WorkJob final : public Async::BaseJob, public PoolTask {
 public:
  WorkJob(Async::Work& work, Async::ActionHandler& handler) : work_(&work), handler_(&handler) {}

  void Cancel() override {
    if (!taken_.exchange(true)) handler_->Completed(Async::canceled_error.Get());
  }

  void Run() override {
    if (taken_.exchange(true)) return;
    Async::ActionHandler* const handler = handler_;
    handler->Completed(Execute());
  }

 private:
  Common::Error Execute() noexcept {
    try {
      return work_->Execute();
    } catch (const Common::Error& error) {
      return error;
    } catch (const std::bad_alloc&) {
      return Common::Error::OutOfMemory();
    } catch (...) {
      return Common::Error(Async::kUnknownExceptionCode,
                           Common::GetMessageText(Common::MessageRow::AsyncUnknownException),
                           kSource.At("Execute", 20));
    }
  }

  Async::Work* const work_;
  Async::ActionHandler* const handler_;
  std::atomic<bool> taken_{false};  // whoever sets it tells the handler
};

}  // namespace

class AsyncService::PoolMetronome final : public Async::Metronome {
 public:
  PoolMetronome(ElasticPool& pool, std::chrono::milliseconds interval)
      : pool_(pool),
        interval_(interval),
        start_(ElasticPool::Clock::now()),
        tick_(new Tick(*this)) {}

  std::shared_ptr<Async::Job> WaitTick(Async::ActionHandler& handler) override {
    auto job = std::make_shared<TickJob>(*this, handler);
    std::lock_guard lock(mutex_);
    if (stopped_) throw Common::Error(Async::canceled_error.Get());
    if (!armed_) armed_ = pool_.PostAt(NextTick(), tick_);
    job->Link(job, first_);
    return job;
  }

  // Ends all waits, and those to come.
  void CancelAll() {
    {
      std::lock_guard lock(mutex_);
      stopped_ = true;
    }
    while (const std::shared_ptr<TickJob> job = TakeFirst()) job->TellCanceled();
  }

 private:
  // One wait for the next tick, in the list of its metronome until the tick or a cancel takes it
  // out.
  class TickJob final : public Async::BaseJob, public PoolTask {
   public:
    TickJob(PoolMetronome& metronome, Async::ActionHandler& handler)
        : metronome_(metronome), handler_(&handler) {}

    void Cancel() override {
      std::shared_ptr<TickJob> self;
      {
        std::lock_guard lock(metronome_.mutex_);
        self = Unlink();
      }
      if (self != nullptr) self->TellCanceled();
    }

    void Run() override { handler_->Completed(Common::Error()); }
    void TellCanceled() { handler_->Completed(Async::canceled_error.Get()); }

    // With the metronome's lock held.
    void Link(std::shared_ptr<TickJob> self, TickJob*& head) {
      self_ = std::move(self);
      next_ = head;
      if (next_ != nullptr) next_->previous_ = &next_;
      previous_ = &head;
      head = this;
    }
    // The list that begins here gets another head.
    void MoveTo(TickJob*& head) {
      head = this;
      previous_ = &head;
    }
    std::shared_ptr<TickJob> Unlink() {
      if (self_ == nullptr) return nullptr;
      *previous_ = next_;
      if (next_ != nullptr) next_->previous_ = previous_;
      return std::move(self_);
    }

   private:
    PoolMetronome& metronome_;
    Async::ActionHandler* const handler_;
    std::shared_ptr<TickJob> self_;  // set while in the list
    TickJob* next_ = nullptr;
    TickJob** previous_ = nullptr;  // what points here
  };

  class Tick final : public PoolTask {
   public:
    explicit Tick(PoolMetronome& metronome) : metronome_(metronome) {}
    void Run() override { metronome_.OnTick(); }

   private:
    PoolMetronome& metronome_;
  };

  ElasticPool::Clock::time_point NextTick() const {
    const auto passed = ElasticPool::Clock::now() - start_;
    return start_ + (passed / interval_ + 1) * interval_;
  }

  std::shared_ptr<TickJob> TakeFirst() {
    std::lock_guard lock(mutex_);
    return first_ != nullptr ? first_->Unlink() : nullptr;
  }

  // Each handler is told by a task of its own: one that blocks doesn't hold up the others. What
  // comes in from now on waits for the next tick.
  void OnTick() {
    TickJob* firing = nullptr;
    {
      std::lock_guard lock(mutex_);
      armed_ = false;
      if (first_ != nullptr) first_->MoveTo(firing);
      first_ = nullptr;
    }
    for (;;) {
      std::shared_ptr<TickJob> job;
      bool last = true;
      {
        std::lock_guard lock(mutex_);  // a cancel may take jobs out of this list, too
        if (firing == nullptr) return;
        job = firing->Unlink();
        last = firing == nullptr;
      }
      if (last) {
        job->Run();
        return;
      }
      PostOrRun(job);
    }
  }

  void PostOrRun(const std::shared_ptr<TickJob>& job) noexcept {
    try {
      if (pool_.Post(job)) return;
    } catch (const std::exception&) {
      // No memory or no thread: told here.
    }
    job->Run();
  }

  ElasticPool& pool_;
  const std::chrono::milliseconds interval_;
  const ElasticPool::Clock::time_point start_;
  const std::shared_ptr<Tick> tick_;
  std::mutex mutex_;  // guards the list and `armed_`
  TickJob* first_ = nullptr;
  bool armed_ = false;  // a tick is on its way
  bool stopped_ = false;
};

AsyncService::Source::Source(ElasticPool& pool) : pool_(pool) {}

AsyncService::Source::~Source() = default;

Async::Metronome* AsyncService::Source::GetMetronome(unsigned int interval) {
  std::lock_guard lock(mutex_);
  std::unique_ptr<PoolMetronome>& metronome = metronomes_[interval];
  if (metronome == nullptr) {
    metronome = std::make_unique<PoolMetronome>(
        pool_, std::chrono::milliseconds(interval + (interval == 0)));
  }
  return metronome.get();
}

void AsyncService::Source::CancelAll() {
  // The map only grows, and nobody asks a stopping service for a new interval.
  for (const auto& [interval, metronome] : metronomes_) metronome->CancelAll();
}

AsyncService::AsyncService() : storage_(pool_), source_(pool_) {}

AsyncService::~AsyncService() {
  Stop();
}

std::shared_ptr<Async::Job> AsyncService::PerformWork(Async::Work& work,
                                                      Async::ActionHandler& handler) {
  auto job = std::make_shared<WorkJob>(work, handler);
  bool posted = false;
  try {
    posted = pool_.Post(job);
  } catch (const std::exception&) {
    throw Common::Error::OutOfMemory();
  }
  if (!posted) throw Common::Error(Async::canceled_error.Get());
  return job;
}

Async::SynchronizationCallbackStorage* AsyncService::GetSynchronizationCallbackStorage() {
  return &storage_;
}

Async::MetronomeSource* AsyncService::GetMetronomeSource() {
  return &source_;
}

void AsyncService::CallbackStorage::Notify(Async::Job* job) {
  pool_.NoteBlocked();
  TlsSynchronizationCallbackStorage::Notify(job);
}

void AsyncService::Stop() {
  source_.CancelAll();
  pool_.Stop();
}

namespace {

// Never destroyed: threads of other libraries may still hold it while the process exits.
AsyncService& GetProcessService() {
  static AsyncService* const service = [] {
    auto* const made = new AsyncService;
    std::atexit([] {
      Async::SetServiceProvider(nullptr);
      GetProcessService().Stop();
    });
    return made;
  }();
  return *service;
}

[[maybe_unused]] const Async::ServiceProvider former_provider =
    Async::SetServiceProvider([](Async::Service** service) { *service = &GetProcessService(); });

}  // namespace

}  // namespace Platform
