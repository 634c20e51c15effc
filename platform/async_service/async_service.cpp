#include "platform/async_service/async_service.h"

#include <atomic>
#include <cstdlib>
#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/message_table.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/operation_description.h"

namespace Platform {

namespace {

// Keeps blocks of one size for the next taker: sequences begin waits for ticks and cancel them,
// some for each step. Outlives the metronome as long as a block is in use.
class BlockRecycler {
 public:
  BlockRecycler() { free_.reserve(kMaxFree); }
  BlockRecycler(const BlockRecycler&) = delete;
  BlockRecycler& operator=(const BlockRecycler&) = delete;
  ~BlockRecycler() {
    for (void* const block : free_) ::operator delete(block);
  }

  void* Take(std::size_t size) {
    {
      std::lock_guard lock(mutex_);
      if (!free_.empty()) {
        void* const block = free_.back();
        free_.pop_back();
        return block;
      }
    }
    return ::operator new(size);
  }
  void Give(void* block) noexcept {
    {
      std::lock_guard lock(mutex_);
      if (free_.size() < kMaxFree) {
        free_.push_back(block);
        return;
      }
    }
    ::operator delete(block);
  }

 private:
  static constexpr std::size_t kMaxFree = 64;

  std::mutex mutex_;
  std::vector<void*> free_;
};

// For std::allocate_shared: all blocks of one recycler are of one type.
template <class T>
class RecyclingAllocator {
 public:
  using value_type = T;

  explicit RecyclingAllocator(std::shared_ptr<BlockRecycler> recycler)
      : recycler_(std::move(recycler)) {}
  template <class Other>
  RecyclingAllocator(const RecyclingAllocator<Other>& other) : recycler_(other.recycler_) {}

  T* allocate(std::size_t count) { return static_cast<T*>(recycler_->Take(count * sizeof(T))); }
  void deallocate(T* block, std::size_t) noexcept { recycler_->Give(block); }

  template <class Other>
  bool operator==(const RecyclingAllocator<Other>& other) const {
    return recycler_ == other.recycler_;
  }

  std::shared_ptr<BlockRecycler> recycler_;
};

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
    } catch (...) {
      Async::JobControl::PerformExceptionDescription operation;
      return Async::DescribeCaughtException(operation);
    }
  }

  Async::Work* const work_;
  Async::ActionHandler* const handler_;
  std::atomic<bool> taken_{false};  // whoever sets it tells the handler
};

}  // namespace

class AsyncService::PoolMetronome final : public Async::Metronome, private Async::Beats {
 public:
  PoolMetronome(ElasticPool& pool, std::chrono::milliseconds interval)
      : pool_(pool),
        interval_(interval),
        start_(ElasticPool::Clock::now()),
        beat_(new Beat(*this)),
        recycler_(std::make_shared<BlockRecycler>()) {}

  std::shared_ptr<Async::Job> WaitTick(Async::ActionHandler& handler) override {
    return Wait(handler, nullptr, joined_);
  }
  Async::Beats* GetBeats() override { return this; }

  // Ends all waits, and those to come.
  void CancelAll() {
    {
      std::lock_guard lock(mutex_);
      stopped_ = true;
    }
    for (TickJob** const list : {&joined_, &waited_, &watching_}) {
      while (const std::shared_ptr<TickJob> job = TakeFirst(*list)) job->TellCanceled();
    }
  }

 private:
  // One wait for the next tick, in the list of its metronome until the tick or a cancel takes it
  // out.
  class TickJob final : public Async::BaseJob, public PoolTask {
   public:
    TickJob(PoolMetronome& metronome, Async::ActionHandler& handler, Async::BeatWatcher* watcher)
        : metronome_(metronome), handler_(&handler), watcher_(watcher) {}

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
    bool IsTick() { return watcher_->OnBeat(); }
    TickJob* GetNext() const { return next_; }
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
    Async::BeatWatcher* const watcher_;
    std::shared_ptr<TickJob> self_;  // set while in the list
    TickJob* next_ = nullptr;
    TickJob** previous_ = nullptr;  // what points here
  };

  class Beat final : public PoolTask {
   public:
    explicit Beat(PoolMetronome& metronome) : metronome_(metronome) {}
    void Run() override { metronome_.OnBeat(); }

   private:
    PoolMetronome& metronome_;
  };

  std::shared_ptr<Async::Job> Watch(Async::BeatWatcher& watcher,
                                    Async::ActionHandler& handler) override {
    return Wait(handler, &watcher, watching_);
  }

  std::shared_ptr<Async::Job> Wait(Async::ActionHandler& handler, Async::BeatWatcher* watcher,
                                   TickJob*& list) {
    try {
      auto job = std::allocate_shared<TickJob>(RecyclingAllocator<TickJob>(recycler_), *this,
                                               handler, watcher);
      std::lock_guard lock(mutex_);
      if (!stopped_ && !armed_) armed_ = pool_.PostAt(NextBeat(), beat_);
      if (stopped_ || !armed_) throw Common::Error(Async::canceled_error.Get());
      job->Link(job, list);
      return job;
    } catch (const std::exception&) {
      throw Common::Error::OutOfMemory();  // of memory or of threads
    }
  }

  ElasticPool::Clock::time_point NextBeat() const {
    const auto passed = ElasticPool::Clock::now() - start_;
    return start_ + (passed / interval_ + 1) * interval_;
  }

  // A cancel may take jobs out of any list meanwhile.
  std::shared_ptr<TickJob> TakeFirst(TickJob*& list) {
    std::lock_guard lock(mutex_);
    return list != nullptr ? list->Unlink() : nullptr;
  }
  // Into an empty list.
  static void MoveAll(TickJob*& from, TickJob*& to) {
    if (from != nullptr) from->MoveTo(to);
    from = nullptr;
  }

  // Tells those that have waited for a whole interval at least. What joined since the last beat
  // moves up and is told at the next one: a wait that began right before a beat would end at once.
  // Who watches the beats knows that for itself.
  void OnBeat() {
    TickJob* due = nullptr;
    TickJob* lost = nullptr;
    {
      std::lock_guard lock(mutex_);
      MoveAll(waited_, due);
      MoveAll(joined_, waited_);
      for (TickJob* job = watching_; job != nullptr;) {
        TickJob* const next = job->GetNext();
        if (job->IsTick()) job->Link(job->Unlink(), due);
        job = next;
      }
      armed_ = false;
      try {
        if (waited_ != nullptr || watching_ != nullptr) {
          // An interval from now, not from when this beat was due: it may have come late.
          armed_ = pool_.PostAt(ElasticPool::Clock::now() + interval_, beat_);
        }
      } catch (const std::exception&) {
        // The next wait arms again, or the stop ends them. Those who watch are told to come again.
        MoveAll(waited_, joined_);
        MoveAll(watching_, lost);
      }
    }
    while (const std::shared_ptr<TickJob> job = TakeFirst(lost)) job->TellCanceled();
    Fire(due);
  }

  // Each handler is told by a task of its own: one that blocks doesn't hold up the others.
  void Fire(TickJob*& due) {
    for (;;) {
      std::shared_ptr<TickJob> job;
      bool last = true;
      {
        std::lock_guard lock(mutex_);
        if (due == nullptr) return;
        job = due->Unlink();
        last = due == nullptr;
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
  const std::shared_ptr<Beat> beat_;
  const std::shared_ptr<BlockRecycler> recycler_;
  std::mutex mutex_;             // guards what follows
  TickJob* joined_ = nullptr;    // since the last beat
  TickJob* waited_ = nullptr;    // for one beat
  TickJob* watching_ = nullptr;  // the beats
  bool armed_ = false;           // a beat is on its way
  bool stopped_ = false;
};

AsyncService::Source::Source(ElasticPool& pool) : pool_(pool) {}

AsyncService::Source::~Source() = default;

Async::Metronome* AsyncService::Source::GetMetronome(unsigned int interval) {
  std::lock_guard lock(mutex_);
  if (const auto found = metronomes_.find(interval); found != metronomes_.end()) {
    return found->second.get();
  }
  auto metronome =
      std::make_unique<PoolMetronome>(pool_, std::chrono::milliseconds(interval + (interval == 0)));
  if (stopped_) metronome->CancelAll();
  return metronomes_.emplace(interval, std::move(metronome)).first->second.get();
}

void AsyncService::Source::CancelAll() {
  std::unique_lock lock(mutex_);
  stopped_ = true;
  // None is taken out. One that comes meanwhile is cancelled already.
  for (const auto& [interval, metronome] : metronomes_) {
    lock.unlock();
    metronome->CancelAll();
    lock.lock();
  }
}

AsyncService::AsyncService() : storage_(pool_), source_(pool_) {}

AsyncService::~AsyncService() {
  Stop();
}

std::shared_ptr<Async::Job> AsyncService::PerformWork(Async::Work& work,
                                                      Async::ActionHandler& handler) {
  try {
    auto job = std::make_shared<WorkJob>(work, handler);
    if (!pool_.Post(job)) throw Common::Error(Async::canceled_error.Get());
    return job;
  } catch (const std::exception&) {
    throw Common::Error::OutOfMemory();  // of memory or of threads
  }
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
    // Makes sure that the catalogue of the user's language is loaded, and so its end registered,
    // first: the pool's threads, which read texts, end before the texts are freed.
    Common::GetMessageText(Common::MessageRow::AsyncCanceled);
    std::atexit([] {
      Async::SetServiceProvider(nullptr);
      AsyncService& process_service = GetProcessService();
      // A task of the service that exits the process can't wait for its own end.
      if (!process_service.GetPool().IsOwnThread()) process_service.Stop();
    });
    return made;
  }();
  return *service;
}

[[maybe_unused]] const Async::ServiceProvider former_provider =
    Async::SetServiceProvider([](Async::Service** service) { *service = &GetProcessService(); });

}  // namespace

}  // namespace Platform
