#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "core/common/non_copyable.h"
#include "platform/async_service/elastic_pool.h"
#include "platform/ipc/io_loop.h"

namespace Platform::Ipc {

// A task that can be kept without memory.
class DeliveryTask : public PoolTask {
 private:
  friend class Delivery;
  std::shared_ptr<DeliveryTask> next_;
};

// Brings tasks to a pool, also while the system has no thread or no memory for it: they are tried
// again then, and never run on the loop's thread. Threads: any.
class Delivery : public Common::NonCopyable {
 public:
  explicit Delivery(ElasticPool& pool) : pool_(pool) {}
  ~Delivery();

  // Before the first task. Borrowed.
  void SetLoop(IoLoop& loop) { loop_ = &loop; }

  // Never fails.
  void Post(std::shared_ptr<DeliveryTask> task) noexcept;
  // Throws std::bad_alloc; then it is as if it hadn't been called.
  void Post(std::function<void()> task);
  // Sees to it that what is undelivered is tried again, also if there was no memory for that. Post
  // calls it, connections do when they look at their time limits, and what waits for a task does
  // now and then.
  void EnsureRetry() noexcept;

  // Before the loop stops, and behind it, before the pool does: what is still undelivered runs on
  // the calling thread. The last task is the first one, as the end of a session makes its calls
  // return, or takes the place of them.
  void PrepareStop() noexcept;
  void Flush();

 private:
  std::shared_ptr<DeliveryTask> TakeAll();  // the last one first
  void WaitToRetry();                       // on the loop's thread
  void Retry();

  ElasticPool& pool_;
  IoLoop* loop_ = nullptr;
  // The loop's.
  std::unique_ptr<IoTimer> timer_;
  bool is_stopping_ = false;

  std::mutex mutex_;                           // guards what follows
  std::shared_ptr<DeliveryTask> undelivered_;  // the last one, in front of the others
  bool will_retry_ = false;
};

}  // namespace Platform::Ipc
