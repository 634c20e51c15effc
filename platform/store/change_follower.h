#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/por/unit_factory.h"
#include "platform/async_service/elastic_pool.h"
#include "platform/ipc/unique_descriptor.h"
#include "platform/store/followed_view.h"
#include "platform/store/look_pace.h"
#include "platform/store/object_store.h"

namespace Platform::Store {

// Follows a store for all subscriptions of one post office: one thread that looks for changes while
// any read waits, and otherwise sleeps, and a pool on which their readers and handlers are called,
// so that none of them holds another one up, unless ElasticPool::kMaxThreads of them block at a
// time.
//
// It looks at the pace of LookPace, when the store's descriptor tells of something, and when a read
// begins.
//
// Threads: any, but for the constructor and Stop, which belong to the owner.
class ChangeFollower : public Common::NonCopyable {
 public:
  // What is made of the log at once: so many changes, or fewer with so many bytes of objects.
  static constexpr std::size_t kBatchChanges = 1000;
  static constexpr std::size_t kBatchBytes = 4 * 1024 * 1024;

  // The factory is borrowed until Stop has returned.
  ChangeFollower(std::shared_ptr<const ObjectStore> store,
                 const Por::Construction::UnitFactory& factory);
  // Stop was called, unless nothing was ever served.
  ~ChangeFollower();

  // Gives the waiting read of `view` its outcome and delivers it; one that is there already at
  // once, whatever the store does. False after Stop. Throws std::bad_alloc or std::system_error
  // when there can't be a thread, or a descriptor to wake it by; the view isn't served then.
  bool Serve(const std::shared_ptr<FollowedView>& view);
  // Ends all waiting reads with `result`, inside the call, and waits for those that are being
  // delivered, but for one that makes this call.
  void Stop(const Common::Error& result);

  const ObjectStore& GetStore() const { return *store_; }

 private:
  using Clock = LookPace::Clock;
  using View = std::shared_ptr<FollowedView>;
  using Views = std::vector<View>;

  struct Reading;
  class Delivery;

  void StartThread();
  void Wake();
  void Run();
  // Until `end`, until Wake, or, if `is_ended_by_event`, until an event that concerns the store.
  void Sleep(std::unique_lock<std::mutex>& lock, Clock::time_point end, bool is_ended_by_event);
  void Poll(Clock::time_point end, bool is_ended_by_event);
  // These return whether there is more to do at once.
  bool Look();
  bool ReadLog(ChangeLog& log, const Views& views);
  static void ApplyChanges(ChangeLog& log, std::vector<Reading>& readings, long long& reached,
                           const Por::Construction::UnitFactory& factory);
  Views GetWaiting();
  void Post(const View& view);

  const std::shared_ptr<const ObjectStore> store_;
  const Por::Construction::UnitFactory* const factory_;
  std::atomic<bool> stop_{false};

  // Of the following thread.
  const std::unique_ptr<ChangeWatch> watch_;
  long long last_ = -1;      // number of the last change at the last look
  bool has_found_ = false;   // the last look has found another one
  bool had_events_ = false;  // there were events that concern the store since the last look
  bool locked_ = false;      // the last look has failed by a lock

  std::mutex mutex_;        // guards the fields below; locked before a view's mutex, never after
  std::set<View> waiting_;  // those whose reads wait, and some whose reads have ended
  bool has_arrival_ = false;
  bool is_asleep_ = false;
  bool is_woken_ = false;       // there is something in wake_
  Ipc::UniqueDescriptor wake_;  // made before the thread
  std::thread thread_;
  std::shared_ptr<ElasticPool> pool_;
};

}  // namespace Platform::Store
