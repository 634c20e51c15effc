#include "platform/store/change_follower.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "core/common/trace.h"
#include "platform/store/file_codes.h"
#include "platform/store/guarded_call.h"

namespace Platform::Store {

namespace {

// The least time between two looks at what others write in the store's folder.
constexpr std::chrono::milliseconds kOthersPause{2};

timespec ToTimespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

}  // namespace

// What a look brings to a view that is behind.
struct ChangeFollower::Reading {
  View view;
  FollowedView::Updates updates;
  Common::Error failure;
};

class ChangeFollower::Delivery final : public PoolTask {
 public:
  Delivery(View view, ElasticPool& pool) : view_(std::move(view)), pool_(pool) {}
  void Run() override {
    // Nobody knows what the reader does.
    pool_.NoteBlocked();
    view_->Deliver();
  }

 private:
  const View view_;
  ElasticPool& pool_;  // on a thread of which this runs
};

ChangeFollower::ChangeFollower(std::shared_ptr<const ObjectStore> store,
                               const Por::Construction::UnitFactory& factory)
    : store_(std::move(store)), factory_(&factory), watch_(store_->Watch()) {}

ChangeFollower::~ChangeFollower() = default;

bool ChangeFollower::Serve(const View& view) {
  {
    const std::lock_guard lock(mutex_);
    if (stop_.load(std::memory_order_relaxed)) return false;
    waiting_.insert(view);
    try {
      if (pool_ == nullptr) pool_ = std::make_shared<ElasticPool>();
      if (!thread_.joinable()) StartThread();
    } catch (...) {
      waiting_.erase(view);
      throw;
    }
    has_arrival_ = true;
    Wake();
  }
  // What a read left behind that was ended too late, or broken off. The following thread may be in
  // a look for another view, which waits for the store.
  if (view->HasOutcome()) Post(view);
  return true;
}

void ChangeFollower::Stop(const Common::Error& result) {
  std::thread thread;
  {
    const std::lock_guard lock(mutex_);
    stop_.store(true, std::memory_order_relaxed);
    thread = std::move(thread_);
    Wake();
  }
  if (thread.joinable()) thread.join();
  std::set<View> waiting;
  std::shared_ptr<ElasticPool> pool;
  {
    const std::lock_guard lock(mutex_);
    waiting.swap(waiting_);
    pool.swap(pool_);
  }
  for (const View& view : waiting) view->End(result);
  if (pool == nullptr) return;
  if (!pool->IsOwnThread()) {
    pool->Stop();
    return;
  }
  // This is inside a delivery, for which the pool would wait.
  try {
    std::thread([pool] { pool->Stop(); }).detach();
  } catch (const std::exception&) {
    // Its threads end by themselves when there is nothing to do; it must not go before them.
    static_cast<void>(new (std::nothrow) std::shared_ptr<ElasticPool>(pool));
  }
}

void ChangeFollower::StartThread() {
  if (!wake_) wake_ = Ipc::UniqueDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake_) throw std::system_error(errno, std::system_category());
  thread_ = std::thread([this] { Run(); });
}

void ChangeFollower::Wake() {
  if (!is_asleep_ || is_woken_) return;
  const std::uint64_t one = 1;
  is_woken_ = ::write(wake_.Get(), &one, sizeof one) == sizeof one;
}

void ChangeFollower::Run() {
  LookPace pace(Clock::now());
  std::unique_lock lock(mutex_);
  while (!stop_.load(std::memory_order_relaxed)) {
    if (waiting_.empty()) {
      Sleep(lock, Clock::time_point::max(), false);
      continue;
    }
    has_arrival_ = false;
    lock.unlock();
    if (watch_->TakeEvents()) had_events_ = true;
    has_found_ = false;
    bool has_more = false;
    try {
      has_more = Look();
    } catch (const std::bad_alloc&) {
      // The next look tries again.
    }
    const Clock::time_point now = Clock::now();
    const LookPace::Pause pause = pace.NoteLook(now, had_events_, has_found_);
    had_events_ = false;
    lock.lock();
    if (!has_more) Sleep(lock, now + pause.time, pause.is_ended_by_event);
  }
}

void ChangeFollower::Sleep(std::unique_lock<std::mutex>& lock, Clock::time_point end,
                           bool is_ended_by_event) {
  if (has_arrival_ || stop_.load(std::memory_order_relaxed)) return;
  is_asleep_ = true;
  lock.unlock();
  Poll(end, is_ended_by_event);
  lock.lock();
  is_asleep_ = false;
  if (!is_woken_) return;
  std::uint64_t count = 0;
  is_woken_ = ::read(wake_.Get(), &count, sizeof count) != sizeof count;
}

void ChangeFollower::Poll(Clock::time_point end, bool is_ended_by_event) {
  Clock::time_point heeded{};  // from then on there is a look at events
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (now >= end) return;
    const bool heeds = is_ended_by_event && now >= heeded;
    pollfd waits[] = {{wake_.Get(), POLLIN, 0}, {heeds ? watch_->GetDescriptor() : -1, POLLIN, 0}};
    const bool is_endless = end == Clock::time_point::max();
    const timespec time =
        ToTimespec((is_ended_by_event && !heeds ? std::min(end, heeded) : end) - now);
    const int ready = ::ppoll(waits, 2, is_endless ? nullptr : &time, nullptr);
    if (ready < 0) {
      // Nothing but a signal interrupts it. This must not spin if anything else does.
      if (errno != EINTR) std::this_thread::sleep_for(kOthersPause);
      continue;
    }
    if (waits[0].revents != 0) return;
    if (waits[1].revents == 0) continue;
    if (watch_->TakeEvents()) {
      had_events_ = true;
      return;
    }
    heeded = Clock::now() + kOthersPause;
  }
}

// Drops the views whose reads were taken or ended: a new read serves them anew. Nothing else does,
// as a delivery may take or miss any read that is begun before its end.
ChangeFollower::Views ChangeFollower::GetWaiting() {
  const std::lock_guard lock(mutex_);
  std::erase_if(waiting_, [](const View& view) { return !view->IsWaiting(); });
  return {waiting_.begin(), waiting_.end()};
}

bool ChangeFollower::Look() {
  Views views;
  bool has_new_place = false;
  for (View& view : GetWaiting()) {
    if (!view->NeedsLook()) {
      // A delivery takes it, unless there was no thread for one.
      if (view->HasOutcome()) Post(view);
      continue;
    }
    if (view->position.number != last_) has_new_place = true;
    views.push_back(std::move(view));
  }
  bool has_more = false;
  if (!views.empty()) {
    const Common::Error failure = RunGuarded(u"Follow", [&] {
      const auto log = watch_->Look(has_new_place, stop_);
      if (log == nullptr) return;
      has_found_ = last_ != log->GetLast();
      last_ = log->GetLast();
      has_more = ReadLog(*log, views);
    });
    if (stop_.load(std::memory_order_relaxed)) return false;
    const bool is_locked = failure.GetCode() == Core::kFileLockFailure.code;
    if (is_locked && !locked_) Common::Trace(Common::kTraceDebug, failure);
    locked_ = is_locked;
    // A store that is locked, as by its last writer that moves the log, has nothing new yet.
    if (failure.IsFailure() && !is_locked) {
      for (const View& view : views) {
        if (!view->HasOutcome()) view->SetFailure(failure);
      }
    }
  }
  for (const View& view : views) {
    if (view->HasOutcome()) Post(view);
  }
  return has_more;
}

bool ChangeFollower::ReadLog(ChangeLog& log, const Views& views) {
  std::vector<Reading> readings;
  for (const View& view : views) {
    Common::Error failure = RunGuarded(u"Follow", [&] { log.Check(view->position); });
    if (failure.IsFailure()) {
      view->SetFailure(failure);
    } else if (view->position.number < log.GetLast()) {
      readings.push_back({view, {}, {}});
    }
  }
  if (readings.empty()) return false;
  const auto first =
      std::min_element(readings.begin(), readings.end(), [](const Reading& a, const Reading& b) {
        return a.view->position.number < b.view->position.number;
      });
  long long reached = first->view->position.number;
  const Common::Error failure = RunGuarded(u"Follow", [&] {
    log.Seek(ChangePosition(first->view->position));
    ApplyChanges(log, readings, reached, *factory_);
  });
  bool has_more = false;
  for (Reading& reading : readings) {
    FollowedView& view = *reading.view;
    // What made the walk end doesn't concern those who stand farther on.
    if (failure.IsFailure() && view.position.number == reached) reading.failure = failure;
    if (!reading.updates.empty()) {
      view.SetUpdates(std::move(reading.updates));
    } else if (reading.failure.IsFailure()) {
      view.SetFailure(reading.failure);
    } else if (view.position.number < log.GetLast()) {
      has_more = true;
    }
  }
  return has_more;
}

// `reached` is the number of the change up to which all of them, but for those that failed, have
// come at least.
void ChangeFollower::ApplyChanges(ChangeLog& log, std::vector<Reading>& readings,
                                  long long& reached,
                                  const Por::Construction::UnitFactory& factory) {
  StoredChange stored;
  std::size_t bytes = 0;
  for (std::size_t count = 0; count < kBatchChanges && bytes < kBatchBytes; ++count) {
    if (!log.Next(stored)) return;
    bytes += stored.before_size + stored.after_size;
    DecodedChange change(stored, factory);
    for (Reading& reading : readings) {
      FollowedView& view = *reading.view;
      if (view.position.number >= stored.number || reading.failure.IsFailure()) continue;
      reading.failure = RunGuarded(u"Follow", [&] { view.filter.Apply(change, reading.updates); });
      if (reading.failure.IsFailure()) continue;
      view.position.number = stored.number;
      view.position.total = stored.total;
      view.position.stamp = stored.stamp;
    }
    reached = stored.number;
  }
}

// A view whose delivery can't be posted goes on waiting: the next look tries again.
void ChangeFollower::Post(const View& view) {
  std::shared_ptr<ElasticPool> pool;
  {
    const std::lock_guard lock(mutex_);
    pool = pool_;
  }
  if (pool == nullptr) return;  // Stop ends the read
  // Before the delivery, in which the next read may begin.
  if (!view->PrepareDelivery()) return;
  bool is_posted = false;
  try {
    is_posted = pool->Post(std::make_shared<Delivery>(view, *pool));
  } catch (const std::exception&) {
    // No memory, or no thread to be had.
  }
  if (!is_posted) view->DropDelivery();
}

}  // namespace Platform::Store
